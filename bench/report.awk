# report.awk -v dir=DIR SAMPLES: from lines of figure, amount of work, side and value prints the
# report, and leaves for its plots DIR/goals.tsv, how much of its goal each row takes, and
# DIR/road.tsv. A result beside another side is the median over pairs of samples that were taken one
# after the other, with its quartiles.

{ value[$1, $2, $3, ++count[$1, $2, $3]] = $4 }

END {
    print "| figure | what | daemon: median | p99 | beside | median | p99 | result | quartiles | goal | |"
    print "| --- | --- | --: | --: | --- | --: | --: | --: | --- | --: | --- |"
    goal("road", 10, "script", "ratio", 0.40, "ms", "delivery → notice, 10 folders kept")
    goal("road", 10, "floor", "ratio", 1.10, "ms", "delivery → notice, 10 folders kept")
    goal("burst", 500, "script", "ratio", 0.40, "ms", "500 tombstones at once, an event")
    goal("burst", 500, "floor", "ratio", 1.10, "ms", "500 tombstones at once, an event")
    goal("count", 10000, "coreutils", "ratio", 0.50, "ms", "next count and a keep-N that removes none, 10,000 folders")
    goal("size", 50000, "du", "ratio", 1.00, "ms", "size of 50,000 files")
    goal("switch", 4, "script", "ratio", 0.50, "ms", "switch set → four captures run")
    goal("wakeups", 30, "inotifywait", "value", 0, "wake-ups", "30 s, capture and detection on")
    goal("memory", 30, "inotifywait", "difference", 1024, "KiB", "private memory then")
    goal("armed", 1, "floor", "ratio", 1.20, "ms", "start → both directories watched; floor: a program with the same libraries")
    goal("stripped", 1, "–", "value", 204800, "bytes", "the executable")
    print "\n| figure | work | side | median | ten times the work | factor |"
    print "| --- | --- | --- | --: | --: | --: |"
    split("daemon script floor coreutils du", sides, " ")
    for (i = 1; i in sides; ++i) {
        growth("road", 10, sides[i], "folders kept")
        growth("burst", 50, sides[i], "tombstones at once, an event")
        growth("count", 1000, sides[i], "folders")
        growth("size", 5000, sides[i], "files")
    }
    print "\n![how much of its goal each figure takes](goals.svg)"
    if (count["road", 10, "daemon"]) plot_road()
    sub(/,$/, "", names)
    printf "\nverdict: %d goals met, %d missed%s\n", verdicts["met"], verdicts["**missed**"], names ? ":" names : ""
}

# Sorts what samples_of and pairs_of leave in `sorted`.
function sort(n,   i, k, one) {
    for (i = 2; i <= n; ++i) {
        one = sorted[i]
        for (k = i - 1; k >= 1 && sorted[k] > one; --k) sorted[k + 1] = sorted[k]
        sorted[k + 1] = one
    }
    return n
}

function samples_of(figure, work, side,   n, i) {
    n = count[figure, work, side]
    for (i = 1; i <= n; ++i) sorted[i] = value[figure, work, side, i]
    return sort(n)
}

function pairs_of(figure, work, side, kind,   n, i, own, other) {
    n = count[figure, work, "daemon"]
    for (i = 1; i <= n; ++i) {
        own = value[figure, work, "daemon", i]
        other = value[figure, work, side, i]
        sorted[i] = kind == "ratio" ? own / other : kind == "difference" ? own - other : own
    }
    return sort(n)
}

function at(n, fraction) { return sorted[1 + int(fraction * (n - 1) + 0.5)] }

function text(number, kind, unit) {
    if (kind == "ratio") return sprintf("%.2f ×", number)
    return sprintf(unit == "ms" ? "%.2f %s" : "%.0f %s", number, unit)
}

function cells(figure, work, side, unit,   n) {
    n = samples_of(figure, work, side)
    return n ? text(at(n, 0.5), "", unit) " | " text(at(n, 0.99), "", unit) : "– | –"
}

function goal(figure, work, side, kind, limit, unit, what,   n, result, spread, verdict, own, other) {
    if (!count[figure, work, "daemon"]) return
    n = pairs_of(figure, work, side, kind)
    result = at(n, 0.5)
    spread = n > 1 ? text(at(n, 0.25), kind, unit) " – " text(at(n, 0.75), kind, unit) : ""
    if (limit != "") {
        verdict = result <= limit ? "met" : "**missed**"
        ++verdicts[verdict]
        if (result > limit) names = names " " figure " : " side ","
        if (limit > 0) printf "%s : %s\t%s\n", figure, side, result / limit > (dir "/goals.tsv")
    }
    own = cells(figure, work, "daemon", unit)
    other = cells(figure, work, side, unit)
    limit = limit == "" ? "–" : "≤ " text(limit, kind, unit)
    printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", figure, what, own, side, other,
        text(result, kind, unit), spread, limit, verdict
}

function growth(figure, work, side, what,   before, after) {
    if (!count[figure, work, side]) return
    before = at(samples_of(figure, work, side), 0.5)
    after = at(samples_of(figure, work * 10, side), 0.5)
    printf "| %s | %d → %d %s | %s | %.2f ms | %.2f ms | %.2f |\n", figure, work, work * 10, what,
        side, before, after, after / before
}

function plot_road(   sides, i, k) {
    split("daemon script floor", sides, " ")
    for (i = 1; i in sides; ++i) {
        printf "%s\"%s\"\n", (i == 1 ? "" : "\n\n"), sides[i] > (dir "/road.tsv")
        for (k = 1; k <= count["road", 10, sides[i]]; ++k)
            print value["road", 10, sides[i], k] > (dir "/road.tsv")
    }
    print "\n![the event road](road.svg)"
}
