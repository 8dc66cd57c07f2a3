#!/usr/bin/env bash
# Measures test strength: plants small faults, one at a time, in a scratch copy
# of the driver's core (driver, run, sensor device, interrupt line and timing,
# pairing) and lists the ones no test noticed. Not part of CI: 30 mutants take
# 15 to 20 minutes here.
#
#   scripts/mutate.sh [seed] [count] [mutate options...]   defaults: seed 11, 30 mutants
#   MUTATE=/path/to/mutate scripts/mutate.sh
set -euo pipefail
cd "$(dirname "$0")/.."
seed=${1:-11}
count=${2:-30}
shift $(($# < 2 ? $# : 2))
tool=${MUTATE:-../shared/tools/mutate}
exec "$tool" --files 'src/driver/*.cpp' 'src/run/*.cpp' 'src/sensor/*.cpp' 'src/timing/*.cpp' 'src/pipeline/*.cpp' \
  --count "$count" --seed "$seed" \
  --test "ctest --preset default --stop-on-failure -j2" "$@"
