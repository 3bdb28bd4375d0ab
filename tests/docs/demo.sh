# Runs what `make demo` runs, with the programs of this build.
#   demo.sh ROOT BUILD_DIRECTORY
set -euo pipefail
FATLIB_BUILD=$2 "$1/scripts/demo"
