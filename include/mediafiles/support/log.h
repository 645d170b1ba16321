/**
 * The logger. The bundled one writes to standard error, with levels 4
 * (journal warnings) and 5 (failures) on.
 */
#ifndef MEDIAFILES_SUPPORT_LOG_H
#define MEDIAFILES_SUPPORT_LOG_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/** Emits a line, formatted as by printf, at a level. It may change errno. */
MEDIAFILES_API void __printLog(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/** Word 16 * level + 15 is non-zero when output at that level is on. */
extern MEDIAFILES_API uint32_t __logLevels[256];

MEDIAFILES_END_DECLS

#endif
