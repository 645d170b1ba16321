// One function under two names: H.264 and H.265 share code, callers see two
// families.
#pragma once

#define SECOND_NAME_OF(function) __attribute__((alias(#function)))
