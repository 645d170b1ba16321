/**
 * The version of these headers. The build system reads the three numbers from
 * here. The shared library's name carries the first one.
 */
#ifndef MEDIAFILES_VERSION_H
#define MEDIAFILES_VERSION_H

#include <mediafiles/types.h> /* ISO C requires a declaration in a translation unit */

#define MEDIAFILES_VERSION_MAJOR 0
#define MEDIAFILES_VERSION_MINOR 1
#define MEDIAFILES_VERSION_PATCH 0

/** "MAJOR.MINOR.PATCH" */
#define MEDIAFILES_VERSION \
    MEDIAFILES_VERSION_TEXT(MEDIAFILES_VERSION_MAJOR, MEDIAFILES_VERSION_MINOR, MEDIAFILES_VERSION_PATCH)

#define MEDIAFILES_VERSION_TEXT(major, minor, patch) MEDIAFILES_VERSION_JOIN(major, minor, patch)
#define MEDIAFILES_VERSION_JOIN(major, minor, patch) #major "." #minor "." #patch

#endif
