# Plots what bench_report.awk left in the directory `data`, into the directory `plots`.
set terminal svg size 720,440 font "sans,12" background "white"
set key outside bottom center horizontal
set grid

set output plots."/requests.svg"
set title "Validate: requests per second"
set xlabel "connections at once"
set logscale x 2
set yrange [0:*]
plot data."/requests.dat" using 1:3 with linespoints lw 2 title "zelttokenmgrd", \
     "" using 1:2 with linespoints title "bare echo", \
     "" using 1:4 with linespoints title "memcached GET", \
     "" using 1:5 with linespoints title "redis GET"

set output plots."/reads.svg"
set title "Read from the store: µs"
set xlabel "records"
set logscale xy 10
set yrange [*:*]
plot data."/reads.dat" using 1:3 with linespoints lw 2 title "JsonFileStorage", \
     "" using 1:2 with linespoints title "bare calls", \
     "" using 1:4 with linespoints title "SQLite"

set output plots."/issue.svg"
set title "Issue: µs"
set xlabel "packages"
unset logscale
set yrange [0:*]
plot data."/issue.dat" using 1:2 with linespoints lw 2 title "TokenManager::IssueToken"
