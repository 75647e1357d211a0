// mp3FilePlay
