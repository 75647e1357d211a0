// sqlite3Wrapper
