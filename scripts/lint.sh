#!/usr/bin/env bash
# Format, static analysis and syntax of all files that are not ignored: lint.sh BUILD_FOLDER (a configured build, for its compile commands).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=${1:-build/release}

# Works whoever owns the checkout: it may be mounted into a container that runs as root.
repository() { git -c safe.directory="$PWD" "$@"; }
# Files whose name fits a pattern, or whose first line runs an interpreter.
by_name() { repository ls-files -z --cached --others --exclude-standard -- "$@"; }
by_interpreter() { by_name | xargs -0 grep -lIZ -m1 -E "^#!.*\b$1\b" -- || true; }

check_format() {
    echo "lint: format"
    by_name '*.h' '*.c' '*.cpp' | xargs -0 -r clang-format --dry-run -Werror
}

check_scripts() {
    echo "lint: shell scripts"
    mapfile -d '' -t scripts < <(by_interpreter bash)
    bash -n "${scripts[@]}"
    shellcheck --severity=warning "${scripts[@]}"
}

check_python() {
    echo "lint: python"
    { by_name '*.py'; by_interpreter python3; } | sort -zu |
        PYTHONPYCACHEPREFIX=build/pycache xargs -0 -r python3 -W error -m py_compile
}

check_links() {
    echo "lint: links in pages"
    python3 -B scripts/links.py
}

check_page() {
    echo "lint: page"
    local folder=tests/page
    by_name 'services/NodeGateway/page/js/*.js' "$folder/*.mjs" |
        xargs -0 -r "$folder/node_modules/.bin/eslint" --config "$folder/eslint.config.mjs" --max-warnings 0 --
}

check_code() {
    echo "lint: static analysis"
    python3 -B scripts/tidy.py "$build" text framework NodeArborInstall services host boot cli
}

repository ls-files --error-unmatch CMakeLists.txt > /dev/null
check_format
check_scripts
check_python
check_links
check_page
check_code
echo "lint: clean"
