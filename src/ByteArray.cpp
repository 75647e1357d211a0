// ByteArray
