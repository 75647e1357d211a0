# unit tests of the daemonShell library
