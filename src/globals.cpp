// globals
