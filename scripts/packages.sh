# Sourced by test.sh and serve.sh: installs the Debian packages that are missing.
#
#   ensure_packages PACKAGE...
#
# Runs apt-get (update first, then install) only when something is missing, without asking
# questions and without reading standard input; as root directly, otherwise through sudo.

package_missing() {
    [[ $(dpkg-query -W -f='${Status}' "$1" 2>/dev/null) != "install ok installed" ]]
}

ensure_packages() {
    local missing=() package sudo=()
    for package in "$@"; do
        if package_missing "$package"; then missing+=("$package"); fi
    done
    ((${#missing[@]})) || return 0
    echo "installing: ${missing[*]}"
    if [[ $(id -u) -ne 0 ]]; then sudo=(sudo -n); fi
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q \
        --no-install-recommends "${missing[@]}" </dev/null
}
