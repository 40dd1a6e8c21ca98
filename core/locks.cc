#include "core/locks.h"

pthread_mutex_t uci_lock = PTHREAD_MUTEX_INITIALIZER;
