# shellcheck shell=sh
# Sourced by the log tests' scripts. counts FILE prints the per-sensor rows (and the total) of a
# summary, the simulator's or camdeliver-log's, in the columns both count alike. A scenario
# whose client sends no-frame enqueues calls counts_without_enqueued first: the simulator counts
# those as enqueued, but they report no completion and write no line unless they wait, so the
# log cannot count them and the enqueued column is left out.
count_columns='$1, $2, $3, $4, $5, $6'
counts_without_enqueued() { count_columns='$1, $2, $3, $5, $6'; }
counts() { grep -E '^(S:[0-9]+|total) ' "$1" | awk "{print $count_columns}"; }
