#include "xmlText.h"
