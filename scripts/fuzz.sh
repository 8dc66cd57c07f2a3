#!/usr/bin/env bash
# Builds the fuzz preset and runs the FIFO parser fuzzer.
#   scripts/fuzz.sh [seconds]   (default 60)
# Exits non-zero when the fuzzer finds a crash or an invariant violation.
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${root}/build/fuzz"
jobs="${PELMOR_BUILD_JOBS:-2}"

cmake --preset fuzz -S "${root}" >/dev/null
cmake --build "${build}" --target fifo_parser_fuzz -j "${jobs}"

work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
mkdir -p "${work}/corpus"
# Seeds: one good packet, two good packets, a good packet then a message packet.
good='\x68\x00\x01\x00\x02\x00\x03\x00\x04\x00\x05\x00\x06\x19\x12\x34'
printf "${good}" >"${work}/corpus/one_packet"
printf "${good}${good}" >"${work}/corpus/two_packets"
printf "${good}\x80" >"${work}/corpus/message_after_packet"

cd "${work}"
"${build}/fuzz/fifo_parser_fuzz" -max_total_time="${seconds}" -max_len=2200 -print_final_stats=1 \
  -artifact_prefix="${root}/build/fuzz/" "${work}/corpus"
