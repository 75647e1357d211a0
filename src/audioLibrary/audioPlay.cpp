// audioPlay
