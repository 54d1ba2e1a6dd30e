# Judges scripts/soak.sh's samples: lines "SECONDS HOST RSS_KIB FDS THREADS PROCESSES ZOMBIES".
# Samples before `warmup` are left out. For every host and figure it prints the
# least-squares slope per hour and the lowest value of the first and the last
# third. Running commands lift every figure for a while; a leak lifts the lowest
# too. A figure whose last-third floor exceeds its first-third one by more than
# the tolerance (rss_tol KiB plus 2 %, or count_tol) grew, and the exit status is 1.
function floor_of(from, to,    i, low) {
  low = series[from]
  for (i = from + 1; i <= to; i++) if (series[i] < low) low = series[i]
  return low
}
BEGIN { split("rss_kib fds threads processes zombies", names, " ") }
$1 >= warmup && NF == 7 {
  if (!($2 in count)) hosts[++host_count] = $2
  n = ++count[$2]
  when[$2, n] = $1
  for (m = 1; m <= 5; m++) value[$2, m, n] = $(m + 2)
}
END {
  grew = 0
  printf "%-13s %-10s %12s %12s %14s  %s\n", "host", "figure", "first floor", "last floor", "slope per hour", "verdict"
  for (h = 1; h <= host_count; h++) {
    host = hosts[h]; n = count[host]
    if (n < 3) { print host ": fewer than 3 samples after the warm-up, nothing judged"; grew = 1; continue }
    third = int(n / 3)
    for (m = 1; m <= 5; m++) {
      sx = sy = sxx = sxy = 0
      for (i = 1; i <= n; i++) {
        series[i] = value[host, m, i]; x = when[host, i] / 3600
        sx += x; sy += series[i]; sxx += x * x; sxy += x * series[i]
      }
      slope = (n * sxx - sx * sx) ? (n * sxy - sx * sy) / (n * sxx - sx * sx) : 0
      first = floor_of(1, third); last = floor_of(n - third + 1, n)
      tolerance = m == 1 ? rss_tol + first * 0.02 : count_tol
      verdict = last - first > tolerance ? "GREW" : "flat"
      if (verdict == "GREW") grew = 1
      printf "%-13s %-10s %12.1f %12.1f %14.1f  %s\n", host, names[m], first, last, slope, verdict
    }
  }
  exit grew
}
