#!/usr/bin/env bash
# Builds everything (installing what that needs on Debian 12) and runs the tests. Arguments are passed on to ctest.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

.ci/install-packages build
.ci/build release
ctest --preset release --parallel $((2 * $(nproc))) "$@" # many of them wait more than they compute
