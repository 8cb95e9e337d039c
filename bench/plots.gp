# SPDX-License-Identifier: Apache-2.0
# Draws the plot of the report from samples.tsv in the current folder.
set terminal svg size 900,420 background "white"
set grid
set datafile separator tab

if (system("grep -c ^road samples.tsv") > 0) {
    set output "road.svg"
    set title "Event road: share of events with their notice within"
    set xlabel "ms"
    set logscale x
    set key right bottom
    plot for [side in "daemon script floor"] "< grep '^road.10.".side."' samples.tsv" using 4:(1) smooth cnormal linewidth 2 title side
}
