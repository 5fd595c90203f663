#include "redundancy_health/frame/statistics.h"

Statistics stats;
