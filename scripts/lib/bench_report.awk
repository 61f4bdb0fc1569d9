# Writes the report, and data into the directory `plots`, from lines "NAME VALUE" sorted by value.

{ value[$1, ++count[$1]] = $2 }

function median(name) {
  if (!(name in count)) { missing = missing " " name; return 1 }
  return value[name, int((count[name] + 1) / 2)]
}

function row(what, figure, unit, goal, least) {
  printf "| %s | %.2f%s | %s %s | %s |\n", what, figure, unit, least ? "at least" : "at most", goal,
    (least ? figure >= goal : figure <= goal) ? "yes" : "**no**"
}

function ratios(what, name, other, sizes, goal, least,   i, n, size) {
  n = split(sizes, size)
  for (i = 1; i <= n; i++)
    row(what ", " size[i], median(name size[i]) / median(other size[i]), "", goal, least)
}

# A table of medians, one row for each size, and the same as data for a plot.
function table(file, what, names, sizes,   i, j, n, m, name, size, head, line, text) {
  n = split(names, name); m = split(sizes, size)
  for (j = 1; j <= n; j++) { head = head " " name[j] " |"; line = line "---|" }
  printf "\n%s:\n\n| |%s\n|---|%s\n", what, head, line
  print file, names >plots "/" file
  for (i = 1; i <= m; i++) {
    text = ""
    for (j = 1; j <= n; j++) text = text sprintf(" %.3g |", median(name[j] "/" size[i]))
    print "| " size[i] " |" text
    gsub(/\|/, "", text); print size[i], text >plots "/" file
  }
}

END {
  table("requests", "Requests per second, by connections at once", "echo ours memcached", "1 8 64 128")
  table("growth", "One request at a time, in µs, by tokens in the store", "issue validate transfer revoke", "1000 10000 100000 1000000")
  table("varied", "Requests per second as other things vary; a `hundred` is 100 checks in one request", "validate issue hundred", "workers-2 workers-64 clients-8 clients-300 clients-1500 list-none list-users list-groups packages-5 packages-100 packages-1000")
  print "\nThe targets:\n\n| Ratio of medians | Measured | Target | Met |\n|---|---|---|---|"
  ratios("validate against memcached `GET`, connections", "ours/", "memcached/", "1 8 64 128", "1.0", 1)
  ratios("validate against the bare echo, connections", "ours/", "echo/", "8 64", 0.7, 1)
  ratios("issue + validate against munge, threads", "pair/", "munge/", "1 2 4", "1.0", 1)
  for (i = split("revoke transfer validate issue", operation); i > 0; i--)
    row(operation[i] ", 1,000,000 tokens against 1,000", median(operation[i] "/1000000") / median(operation[i] "/1000"), "", 2, 0)
  for (i = split("remove insert get", operation); i > 0; i--)
    ratios("store " operation[i] " against the bare calls, records", operation[i] "/ours/", operation[i] "/bare/", "100 1000 10000 100000", 1.1, 0)
  row("validate by the manager against cache hit + service check", median("validate/manager") / median("validate/parts"), "", 1.05, 0)
  row("memory of the daemon and one worker at rest", median("memory"), " MiB", 9, 0)
  if (missing) { print "missing:" missing >"/dev/stderr"; exit 1 }
}
