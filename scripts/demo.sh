#!/usr/bin/env bash
# The main job of `make demo`, run against a built tree.
set -euo pipefail
build=${1:-build/default}
"$build/examples/error_table"
