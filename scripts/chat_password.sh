#!/usr/bin/env bash
# Sets the chat's admin password: the program stores a salted hash of it (the system's crypt,
# yescrypt) in chat/admin/password under its working folder (the site's state folder, or the
# cgi-bin folder of a server that names none), creating the chat's folders when they are
# missing. The password itself is kept nowhere. Installed as tessel-chat-password.
#
#   chat_password.sh [PROGRAM] WORKDIR    (asks for the password on a terminal, otherwise
#                                          reads its first line from stdin)
#
# PROGRAM defaults to the installed program, lib/tessel/tessel beside this script's folder.
# Run as root, the chat's files are then given to the owner of WORKDIR, the server's user.
set -euo pipefail

name=${0##*/}
usage="usage: $name [PROGRAM] WORKDIR"

die() {
    echo "$name: $*" >&2
    exit 1
}

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
    echo "$usage"
    echo "Sets the tessel chat's admin password in WORKDIR/chat/admin/password."
    exit 0
fi
(($# == 1 || $# == 2)) || die "$usage"
if (($# == 1)); then
    installed=$(dirname "$(realpath "$0")")/../lib/tessel/tessel
    [[ -x $installed ]] || die "no installed program: name it ($usage)"
    set -- "$installed" "$1"
fi
program=$(realpath "$1")
workdir=$(realpath "$2")
[[ -x $program ]] || die "no program $1"
[[ -d $workdir ]] || die "no folder $2"

if [[ -t 0 ]]; then
    read -rsp 'chat admin password: ' password
    echo >&2
else
    IFS= read -r password || true
fi
[[ -n $password ]] || die "empty password"

# The program is run by hand on a page of its own; the password reaches it through the
# environment (never the command line, which other users can see), unescaped.
page=$(mktemp -d "${TMPDIR:-/tmp}/tessel-chat.XXXXXX")
trap 'rm -rf "$page"' EXIT
printf '^level[none;^startup[^env[TESSEL_CHAT_PASSWORD]]]set\n' >"$page/set.html"
out=$(cd "$workdir" && env -i PATH="$PATH" TESSEL_CHAT_PASSWORD="$password" \
    REQUEST_URI=/set.html PATH_TRANSLATED="$page/set.html" DOCUMENT_ROOT="$page" \
    "$program" | sed '1,/^$/d')
[[ $out == set ]] || die "${out%set}"
if [[ $(id -u) -eq 0 ]]; then
    chown -R --reference="$workdir" "$workdir/chat"
fi
echo "chat admin password set in $workdir/chat/admin/password"
