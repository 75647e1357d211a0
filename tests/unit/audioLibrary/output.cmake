# unit tests of the output library
