# unit tests of the graph library
