// audioPort
