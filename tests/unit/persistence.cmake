# unit tests of the persistence library
