# The engine's time against extents, snapshots and churn; `data` and `picture` are paths.
set terminal svg size 1080,360 font "sans,11" background "white"
set output picture
set datafile separator "\t"
set multiplot layout 1,3
set style data yerrorlines
set yrange [0:*]
set ylabel "milliseconds (median, lowest, highest)"
set grid
unset key
rows(name) = sprintf("< awk -F'\\t' '$1 == \"%s\"' '%s'", name, data)

set xlabel "extents and tree blocks (millions)"
plot rows("extents") using ($2/1e6):($5*1e3):($6*1e3):($7*1e3) linewidth 2 pointtype 7 pointsize 0.5

set xlabel "snapshots"
plot rows("snapshots") using 2:($5*1e3):($6*1e3):($7*1e3) linewidth 2 pointtype 7 pointsize 0.5

set xlabel "files written anew after each snapshot"
plot rows("churn") using 2:($5*1e3):($6*1e3):($7*1e3) linewidth 2 pointtype 7 pointsize 0.5
unset multiplot
