# SPDX-License-Identifier: Apache-2.0
# report.awk - GOALS: prints the report. The input has a line for each figure, amount of work and side:
# median and p99 of its samples, then median and quartiles of its results beside the daemon.

BEGIN {
    print "| figure | what | daemon: median | p99 | beside | median | p99 | result | quartiles | goal | |"
    print "| --- | --- | --: | --: | --- | --: | --: | --: | --- | --: | --- |"
}

FILENAME == "-" {
    key = $1 SUBSEP $2 SUBSEP $3
    median[key] = $4
    p99[key] = $5
    result[key] = $6
    q1[key] = $7
    q3[key] = $8
    next
}

/^#/ || !(($1, $2, "daemon") in median) { next }

function text(number, unit) {
    return sprintf(unit == "ms" || unit == "×" ? "%.2f %s" : "%.0f %s", number, unit)
}

function cells(key, unit) {
    return key in median ? text(median[key], unit) " | " text(p99[key], unit) : "– | –"
}

function grow(figure, from, side, what,   before, after) {
    if (grown[figure, side]++) return
    before = median[figure, from, side]
    after = median[figure, from * 10, side]
    growth = growth sprintf("| %s | %d → %d %s | %s | %.2f ms | %.2f ms | %.2f |\n", figure, from,
        from * 10, what, side, before, after, after / before)
}

{
    own = $1 SUBSEP $2 SUBSEP "daemon"
    other = $1 SUBSEP $2 SUBSEP $3
    key = $4 == "own" ? own : other
    unit = $4 == "ratio" ? "×" : $6
    goal = $5 == "–" ? $5 : "≤ " text($5, unit)
    verdict = $5 == "–" ? $5 : result[key] <= $5 ? "met" : "**missed**"
    ++verdicts[verdict]
    if (verdict ~ "missed") missed = missed (missed ? ", " : ": ") $1 " : " $3
    spread = q1[key] == q3[key] ? "" : text(q1[key], unit) " – " text(q3[key], unit)
    printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", $1, $7, cells(own, $6), $3,
        cells(other, $6), text(result[key], unit), spread, goal, verdict
    if ($8) {
        grow($1, $8, "daemon", $9)
        grow($1, $8, $3, $9)
    }
}

END {
    print "\n| figure | work | side | median | ten times the work | factor |"
    print "| --- | --- | --- | --: | --: | --: |"
    print growth
    if (("road", 10, "daemon") in median) print "![the event road](road.svg)"
    printf "\nverdict: %d goals met, %d missed%s\n", verdicts["met"], verdicts["**missed**"], missed
}
