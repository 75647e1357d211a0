# unit tests of the sources library
