// One function under two names: H.264 and H.265 share code, callers see two
// families.
#pragma once

// GCC wants an alias to have the attributes that it finds for the function.
#ifdef __clang__
#define SECOND_NAME_OF(function) __attribute__((alias(#function)))
#else
#define SECOND_NAME_OF(function) __attribute__((alias(#function), nothrow))
#endif
