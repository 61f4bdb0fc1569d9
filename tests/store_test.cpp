#include "open_store.h"
