#include "values.h"
