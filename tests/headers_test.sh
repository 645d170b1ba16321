#!/bin/sh
# Each public header compiles by itself, as pedantic C11 and as C++20, with
# every compiler that is there.
#     headers_test.sh INCLUDE_DIRECTORY
set -eu
cd "$1"
checked=0
for header in $(find mediafiles -name '*.h' | sort); do
    for compiler in gcc clang; do
        command -v $compiler >/dev/null || continue
        for language in "c -std=c11" "c++ -std=c++20"; do
            # shellcheck disable=SC2086
            echo "#include <$header>" |
                $compiler -x $language -pedantic-errors -Wall -Wextra -Wconversion -Wshadow -Werror -I. -fsyntax-only - ||
                { echo "$header: $compiler $language"; exit 1; }
            checked=$((checked + 1))
        done
    done
done
echo "$checked compilations"
[ "$checked" -gt 0 ]
