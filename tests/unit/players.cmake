# unit tests of the players library
