#include "recognition/fing_auth.h"

std::atomic<int32_t> fing_auth_cache{-1};
