#!/bin/sh
# Generated scenarios through the simulator at debug level, each log read back by camdeliver-log:
# the same verdict (exit code), nothing that needs attention, and the simulator's per-sensor
# counts for every sensor that did something. A no-frame send is counted by the simulator but
# shows in the log only when it waits, so a sensor's enqueued count may fall short by at most
# its number of no-frame sends.
#   random_readback.sh SIM LOG GENERATOR WORKDIR [SEED COUNT MAX_SENSORS]
set -eu
sim=$1 log=$2 gen=$3 work=$4 seed=${5:-11} count=${6:-40} maxSensors=${7:-6}
rm -rf "$work"
mkdir -p "$work"
"$gen" "$seed" "$count" "$maxSensors" "$work"
# sensor prepared configured enqueued dropped flushed, for rows with any count, and the total
counts() {
  grep -E '^(S:[0-9]+|total) ' "$1" |
    awk '$2 + $3 + $4 + $5 + $6 > 0 || $1 == "total" {print $1, $2, $3, $4, $5, $6}'
}
# Compares the simulator's counts (first file) with the log's (second); prints the first
# difference. The .noframe file gives how far each sensor's enqueued count may fall short.
compare='
  BEGIN {
    while ((getline line < nf) > 0) { split(line, f, " "); allowed[f[1]] = f[2]; all += f[2] }
    allowed["total"] = all
  }
  FNR == NR { sim[$1] = $0; next }
  {
    seen[$1] = 1
    if (!($1 in sim)) { print "camdeliver-log counts " $1 " that the simulator does not"; exit }
    split(sim[$1], s, " ")
    if (s[2] != $2 || s[3] != $3 || s[5] != $5 || s[6] != $6) {
      print $1 ": simulator " sim[$1] ", log " $0; exit
    }
    short = s[4] - $4
    if (short < 0 || short > allowed[$1] + 0) {
      print $1 " enqueued: simulator " s[4] ", log " $4; exit
    }
  }
  END { for (k in sim) if (!(k in seen)) { print "the log misses " k; exit } }'
failed=0
i=0
while [ "$i" -lt "$count" ]; do
  base="$work/random-$i"
  simRc=0
  "$sim" "$base.json" --log-level debug >"$base.sim" 2>"$base.log" || simRc=$?
  logRc=0
  "$log" "$base.log" >"$base.out" || logRc=$?
  problem=""
  if [ "$simRc" != "$logRc" ]; then
    problem="simulator exit $simRc, camdeliver-log exit $logRc"
  elif grep -q '^    needs attention$' "$base.out"; then
    problem="a warning needs attention"
  else
    counts "$base.sim" >"$base.simcounts"
    counts "$base.out" >"$base.logcounts"
    problem=$(awk -v nf="$base.noframe" "$compare" "$base.simcounts" "$base.logcounts")
  fi
  if [ -n "$problem" ]; then
    echo "random scenario $i of seed $seed ($base.json): $problem"
    failed=$((failed + 1))
  fi
  i=$((i + 1))
done
if [ "$failed" != 0 ]; then
  echo "$failed of $count generated scenarios read back differently"
  exit 1
fi
echo "$count generated scenarios (seed $seed): each log reads back with the simulator's" \
  "verdict and counts"
