# The plots of the report, from the files that it leaves in `dir`.
set terminal svg size 900,420 background "white"
set grid

set output dir."/goals.svg"
set datafile separator tab
set title "How much of its goal each figure takes (up to 1: met)"
set style fill solid 0.6
set boxwidth 0.7
set xtics rotate by -30
set yrange [0:*]
plot dir."/goals.tsv" using 0:2:xtic(1) with boxes notitle, 1 with lines dashtype 2 linecolor "black" notitle

if (system("test -s ".dir."/road.tsv && echo yes") eq "yes") {
    set output dir."/road.svg"
    set title "Event road: share of events with their notice within"
    set xlabel "ms"
    set xtics norotate
    set logscale x
    set key right bottom
    stats dir."/road.tsv" using 1 nooutput
    plot for [side=0:STATS_blocks-2] dir."/road.tsv" index side using 1:(1) smooth cnormal linewidth 2 title columnheader(1)
}
