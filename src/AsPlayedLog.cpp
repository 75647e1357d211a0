// AsPlayedLog
