# SPDX-License-Identifier: Apache-2.0
# Draws the plots of the report from samples.tsv and goals.tsv in the current folder.
set terminal svg size 900,420 background "white"
set grid
set datafile separator tab

set output "goals.svg"
set title "How much of its goal each figure takes (up to 1: met)"
set style fill solid 0.6
set boxwidth 0.7
set xtics rotate by -30
set yrange [0:*]
plot "goals.tsv" using 0:2:xtic(1) with boxes notitle, 1 with lines dashtype 2 linecolor "black" notitle

if (system("grep -c ^road samples.tsv") > 0) {
    set output "road.svg"
    set title "Event road: share of events with their notice within"
    set xlabel "ms"
    set xtics norotate
    set logscale x
    set key right bottom
    plot for [side in "daemon script floor"] "< grep '^road.10.".side."' samples.tsv" using 4:(1) smooth cnormal linewidth 2 title side
}
