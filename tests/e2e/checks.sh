# Checks shared by the shell tests, sourced by lib.sh and by the tests that need no server.
# Each prints "ok: WHAT", or "FAIL: WHAT" with what differs and sets E2E_FAILED; a test ends
# with `exit $E2E_FAILED` (or e2e_finish).
E2E_FAILED=0

fail() {
    echo "FAIL: $*"
    E2E_FAILED=1
}

check_equal() {
    if [[ "$2" == "$3" ]]; then
        echo "ok: $1"
    else
        fail "$1"
        echo "  want: $(printf '%q' "$2")"
        echo "  got:  $(printf '%q' "$3")"
    fi
}

# check_contains WHAT TEXT [FILE]: the body (or the file, e.g. $HEADERS or a log) holds the text.
check_contains() {
    local file=${3:-$BODY}
    if grep -qF -- "$2" "$file" 2>/dev/null; then
        echo "ok: $1"
    else
        fail "$1"
        echo "  missing: $(printf '%q' "$2")"
        echo "  in $file: $(head -c 2000 "$file" 2>/dev/null | cat -v)"
    fi
}

# Two files hold the same bytes.
check_same_file() {
    if cmp -s "$2" "$3"; then
        echo "ok: $1"
    else
        fail "$1 (files differ)"
        cmp "$2" "$3" | head -3
    fi
}
