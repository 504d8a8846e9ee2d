#!/bin/bash
# gcov.sh ARGUMENT...: gcov, for gcovr. A process that was forked within a function and exited immediately has counted the
# function's end without its beginning; counts that become negative in this way are reported as not reached.
gcov "$@"
status=$?
shopt -s nullglob
files=(*.gcov)
[[ ${#files[@]} == 0 ]] || sed -i -E 's/^ *-[0-9]+\*?:/    #####:/; s/( taken| returned) -[0-9]+/\1 0/' "${files[@]}"
exit $status
