# Draws the cost of a row against the number of rows, a panel a work, from the lines of times.awk.
#   awk -v table=wide -f plot.awk times.tsv >docs/performance-wide.svg
BEGIN {
    FS = "\t"
    workCount = split("insert read forward backward destroy", works, " ")
    nameCount = split("raw flat sqlitecpp qt vantry vantry-log", names, " ")
    split("#444444 #9aa0a6 #2f7ed8 #41a05c #d6452b #e6a08f", colors, " ")
    left = 56; top = 34; width = 220; height = 190; gap = 66
}
$2 == table && $4 ~ /^[0-9]+$/ {
    cost[$1, $3, $4] = $5 / $4; seen[$3] = 1
    if (!($4 in rows)) { rows[$4] = 1; rowList[++rowCount] = $4 }
}
function log10(x) { return log(x) / log(10) }
function floor(x) { return x == int(x) ? x : (x < 0 ? int(x) - 1 : int(x)) }
function px(r) { return x0 + width * (log10(r) - log10(least)) / (log10(most) - log10(least)) }
function py(c) { return top + height * (high - log10(c)) / (high - low) }
function label(exponent) {
    if (exponent < 0) return sprintf("%.*f ns", -exponent, 10 ^ exponent)
    if (exponent < 3) return 10 ^ exponent " ns"
    if (exponent < 6) return 10 ^ (exponent - 3) " µs"
    return 10 ^ (exponent - 6) " ms"
}
END {
    least = 1e18; most = 0
    for (i = 1; i <= rowCount; i++) {
        if (rowList[i] + 0 < least) least = rowList[i] + 0
        if (rowList[i] + 0 > most) most = rowList[i] + 0
    }
    if (rowCount < 2) { print "times of two numbers of rows are needed" > "/dev/stderr"; exit 1 }
    total = left + workCount * (width + gap)
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %d\" font-family=\"sans-serif\" font-size=\"11\">\n", total, top + height + 66
    printf "<title>Time a row against the number of rows, %s table</title>\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n", table
    for (w = 1; w <= workCount; w++) {
        work = works[w]; x0 = left + (w - 1) * (width + gap); low = 1e9; high = -1e9
        for (key in cost) {
            split(key, part, SUBSEP)
            if (part[1] != work) continue
            value = log10(cost[key])
            if (floor(value) < low) low = floor(value)
            if (floor(value) + 1 > high) high = floor(value) + 1
        }
        if (low > high) continue
        printf "<text x=\"%d\" y=\"20\" font-size=\"14\">%s, %s: time a row</text>\n", x0, work, table
        for (e = low; e <= high; e++) {
            y = py(10 ^ e)
            printf "<path d=\"M%d %.1fh%d\" stroke=\"#dddddd\"/><text x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%s</text>\n", x0, y, width, x0 - 5, y + 4, label(e)
        }
        for (r = least; r <= most * 1.01; r *= 10) {
            printf "<path d=\"M%.1f %dv%d\" stroke=\"#eeeeee\"/><text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\">%d</text>\n", px(r), top, height, px(r), top + height + 16, r
        }
        for (n = 1; n <= nameCount; n++) {
            points = ""
            for (r = least; r <= most * 1.01; r *= 10) {
                if ((work, names[n], r) in cost) points = points sprintf("%.1f,%.1f ", px(r), py(cost[work, names[n], r]))
            }
            if (points == "") continue
            printf "<polyline points=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"%s\"%s/>\n", points, colors[n], names[n] ~ /^vantry/ ? 2.5 : 1.5, names[n] == "vantry-log" ? " stroke-dasharray=\"5 3\"" : ""
        }
    }
    x = left
    printf "<text x=\"%d\" y=\"%d\">rows in the table; both axes are logarithmic</text>\n", left, top + height + 36
    for (n = 1; n <= nameCount; n++) {
        if (!(names[n] in seen)) continue
        printf "<path d=\"M%d %dh24\" stroke=\"%s\" stroke-width=\"3\"/><text x=\"%d\" y=\"%d\">%s</text>\n", x, top + height + 50, colors[n], x + 30, top + height + 54, names[n]
        x += 120
    }
    print "</svg>"
}
