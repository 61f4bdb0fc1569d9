# Writes the report from lines "NAME VALUE", one for each round (or slice of one) and name, and the plots' data.
# Variables: machine, plots (directory for the data).

{ value[$1, ++count[$1]] = $2 }

function sort(list, n,   i, j, moved) {
  for (i = 2; i <= n; i++) {
    moved = list[i]
    for (j = i - 1; j > 0 && list[j] > moved; j--) list[j + 1] = list[j]
    list[j + 1] = moved
  }
}

# Median of list[1..n], which gets sorted.
function middle(list, n) {
  sort(list, n)
  return n % 2 ? list[(n + 1) / 2] : (list[n / 2] + list[n / 2 + 1]) / 2
}

function median(name,   i, list) {
  if (!(name in count)) { missing = missing " " name; return 0 }
  for (i = 1; i <= count[name]; i++) list[i] = value[name, i]
  return middle(list, count[name])
}

function show(x) { return x >= 1000 ? sprintf("%.0f", x) : sprintf("%.3g", x) }

# A row of the first table: figures[1..n], one for each round or slice; `goal` is a bound, at least or most.
function row(what, figures, n, comparison, goal, unit,   mid, met) {
  mid = middle(figures, n) # sorts
  met = comparison == "at least" ? mid >= goal : mid <= goal
  printf "| %s | %.2f%s | %.2f – %.2f | %s %s%s | %s |\n", what, mid, unit, figures[int((n + 3) / 4)], figures[int((3 * n + 3) / 4)],
         comparison, goal, unit, met ? "yes" : "**no**"
}

# The same for `name` divided by `other`, each round or slice by itself.
function ratio(what, name, other, scale, comparison, goal,   i, figures, n) {
  n = count[name] < count[other] ? count[name] : count[other]
  if (n == 0) { missing = missing " " name; return }
  for (i = 1; i <= n; i++) figures[i] = scale * value[name, i] / value[other, i]
  row(what, figures, n, comparison, goal, " ×")
}

function plain(what, name, goal, unit,   i, figures) {
  for (i = 1; i <= count[name]; i++) figures[i] = value[name, i]
  row(what, figures, count[name], "at most", goal, unit)
}

function reached(   i, n, c, size, operation, figures) {
  print "### To reach\n\n| Measured | Median | Spread | Target | Met |\n|---|---|---|---|---|"
  for (c = 8; c <= 64; c *= 8)
    ratio("validate, " c " connections, against memcached `GET`: requests per second",
          "validate/ours/" c "/rps", "validate/memcached/" c "/rps", 1, "at least", "1.0")
  for (c = 8; c <= 64; c *= 8)
    ratio("validate, " c " connections, against the bare echo: requests per second",
          "validate/ours/" c "/rps", "validate/echo/" c "/rps", 1, "at least", 0.75)
  for (c = 1; c <= 4; c *= 2)
    ratio("issue + validate, " c " threads, against munge encode + decode: pairs per second",
          "pair/ours/" c "/rps", "pair/munge/" c "/rps", 1, "at least", 1.5)
  ratio("cache hit, 100000 records, against the bare structure and a parse: time",
        "hit/ours/100000/us", "hit/bare/100000/us", 1, "at most", 1.15)
  n = split("get insert remove", operation)
  for (size = 100; size <= 100000; size *= 10)
    for (i = 1; i <= n; i++)
      ratio("store " operation[i] ", " size " records, against the bare calls: time",
            operation[i] "/ours/" size "/us", operation[i] "/bare/" size "/us", 1, "at most", 1.1)
  ratio("validate by the manager, against cache hit + service check: time",
        "fastapi/manager/requester/us", "fastapi/parts/requester/us", 1, "at most", 1.05)
  ratio("growth of a cache hit, 1000 to 100000 records: time",
        "hit/ours/100000/us", "hit/ours/1000/us", 1, "at most", 2.5)
  ratio("growth of a store get for each record, 10000 to 100000: time",
        "get/ours/100000/us", "get/ours/10000/us", 0.1, "at most", 1.2)
  n = count["issue/101/us"]
  for (i = 1; i <= n; i++) figures[i] = (value["issue/101/us", i] - value["issue/1/us", i]) / 100
  row("issue, each further package", figures, n, "at most", 10, " µs")
  value["rest", 1] = median("memory/rest") / 1024
  count["rest"] = 1
  plain("memory of the daemon and one worker at rest, without the cache", "rest", 12, " MiB")
  plain("memory of an idle connection", "memory/idle", 4, " KiB")
}

function load_table(title, kind, servers, sizes,   i, j, n, m, server, size, name) {
  printf "\n### %s\n\n| At once | Server | Per second | p50 µs | p99 µs | p99.9 µs |\n", title
  print "|---|---|---|---|---|---|"
  n = split(sizes, size)
  m = split(servers, server)
  for (i = 1; i <= n; i++)
    for (j = 1; j <= m; j++) {
      name = kind "/" server[j] "/" size[i] "/"
      printf "| %s | %s | %s | %s | %s | %s |\n", size[i], server[j], show(median(name "rps")),
             show(median(name "p50")), show(median(name "p99")), show(median(name "p99.9"))
    }
}

# Cells that nobody measures stay empty.
function cell(name) { return name in count ? show(median(name)) : "" }

function library_row(what, kind, size) {
  printf "| %s | %s | %s | %s |\n", what, cell(kind "/ours" size), cell(kind "/bare" size),
         cell(kind "/sqlite" size)
}

function library_table(   i, n, size, kind) {
  print "\n### Library\n\nProcessor time in µs.\n\n| | Ours | Bare limit | SQLite |\n|---|---|---|---|"
  library_row("parse a record", "parse", "/us")
  library_row("write a record", "write", "/us")
  n = split("get insert remove", kind)
  for (i = 1; i <= n; i++)
    for (size = 100; size <= 100000; size *= 10)
      library_row("store " kind[i] ", " size " records", kind[i], "/" size "/us")
  for (size = 1000; size <= 100000; size *= 10)
    library_row("cache hit, " size " records", "hit", "/" size "/us")
  library_row("cache miss", "miss", "/us")
  library_row("cache insert that evicts, without its log line", "evict", "/us")
}

function validate_table(   i, j, n, m, list, service) {
  print "\n### Validate in the library\n\nProcessor time in µs.\n"
  print "| Service | Permitted | By the manager | Cache hit + service check |\n|---|---|---|---|"
  n = split("requester any group", list)
  m = split("fastapi taskmanager", service)
  for (j = 1; j <= m; j++)
    for (i = 1; i <= n; i++)
      printf "| %s | %s | %s | %s |\n", service[j], list[i],
             show(median(service[j] "/manager/" list[i] "/us")),
             show(median(service[j] "/parts/" list[i] "/us"))
}

function write_plots(   i, n, c, size, packages) {
  for (c = 1; c <= 128; c *= 2)
    print c, median("validate/echo/" c "/rps"), median("validate/ours/" c "/rps"),
          median("validate/memcached/" c "/rps"), median("validate/redis/" c "/rps") >plots "/requests.dat"
  for (size = 100; size <= 100000; size *= 10)
    print size, median("get/bare/" size "/us"), median("get/ours/" size "/us"),
          median("get/sqlite/" size "/us") >plots "/reads.dat"
  n = split("1 11 31 101", packages)
  for (i = 1; i <= n; i++) print packages[i], median("issue/" packages[i] "/us") >plots "/issue.dat"
}

END {
  printf "\n%s.\nMedians of %d rounds. The spread is that of the middle half.\n\n",
         machine, count["parse/ours/us"]
  reached()
  load_table("Validate", "validate", "echo ours memcached redis", "1 2 4 8 16 32 64 128")
  load_table("Issue + validate", "pair", "ours munge", "1 2 4")
  library_table()
  validate_table()
  write_plots()
  if (missing) { print "missing:" missing >"/dev/stderr"; exit 1 }
}
