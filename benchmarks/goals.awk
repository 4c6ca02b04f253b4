# Holds the counts and the medians against the goals.  awk -f goals.awk counts.tsv times.tsv
function ratio(a, b) { return b > 0 ? a / b : 0 }
function instructions(work, table, name) { return ratio(counted[work, table, name], counted[work, table, "raw"]) }
function cell(value) { return value > 0 ? sprintf("%.2f", value) : "" }
function line(what, sqlitecpp, qt, ours, goal, reached) {
    printf "| %s | %s | %s | %s | %s | %s |\n", what, cell(sqlitecpp), cell(qt), (ours > 0 ? cell(ours) : "not measured"), goal, (ours > 0 ? (reached ? "yes" : "no") : "")
}
function counts(work, table, what, goal, text,    ours) {
    ours = instructions(work, table, "vantry")
    line(what, instructions(work, table, "sqlitecpp"), instructions(work, table, "qt"), ours, text, ours <= goal)
}
function growth(work, table, name) { return ratio(time[work, table, name, 100000] / 100, time[work, table, name, 1000]) }
BEGIN { FS = "\t"; workCount = split("insert read forward backward destroy", works, " ") }
FILENAME ~ /counts/ { counted[$1, $2, $3] = $5; if ($1 == "read") allocated[$2, $3] = $6 / $4; next }
{ time[$1, $2, $3, $4] = $5 }
END {
    print "| instructions a row, times raw | SQLiteCpp | Qt | library | goal | reached |"
    print "|---|--:|--:|--:|--:|---|"
    counts("insert", "wide", "insert, wide", 1.10, "1.10")
    counts("insert", "narrow", "insert, narrow", 1.12, "1.12")
    counts("read", "wide", "read, wide", 1.20, "1.20")
    counts("read", "narrow", "read, narrow", 1.55, "1.55")
    ours = instructions("forward", "wide", "vantry"); qt = instructions("forward", "wide", "qt")
    line("forward, four columns", instructions("forward", "wide", "sqlitecpp"), qt, ours, "3, and half of Qt", ours <= 3 && (qt == 0 || ours <= qt / 2))
    counts("backward", "wide", "backward, one column", 8, "8")
    print "\n| allocations a cell | SQLiteCpp | Qt | library | goal | reached |"
    print "|---|--:|--:|--:|--:|---|"
    line("read, wide", allocated["wide", "sqlitecpp"] / 26, allocated["wide", "qt"] / 26, allocated["wide", "vantry"] / 26, "1.05", allocated["wide", "vantry"] / 26 <= 1.05)
    if (("read", "wide", "raw", 100000) in time) print_growth()
    print_hand_over()
    print_parts()
}
function print_parts(    t, k, table) {
    print "\n| what a hand-over is made of, milliseconds | store | fetch | visit every value | of these, the object itself, empty |"
    print "|---|--:|--:|--:|--:|"
    for (t = 1; t <= 2; t++) {
        table = t == 1 ? "wide" : "narrow"
        partCount = split("store fetch visit object", parts, " ")
        printf "| %s |", table
        for (k = 1; k <= partCount; k++) printf " %.2f |", time["parts", table, "vantry", parts[k]] / 1e6
        print ""
    }
}
function print_growth(    w, t, table, ours) {
    print "\n| time a row at 100,000 rows against 1,000 | raw | SQLiteCpp | Qt | library | goal | reached |"
    print "|---|--:|--:|--:|--:|--:|---|"
    for (w = 1; w <= workCount; w++) for (t = 1; t <= 2; t++) {
        table = t == 1 ? "wide" : "narrow"; ours = growth(works[w], table, "vantry")
        printf "| %s, %s | %s | %s | %s | %s | 1.5 | %s |\n", works[w], table, cell(growth(works[w], table, "raw")), cell(growth(works[w], table, "sqlitecpp")), cell(growth(works[w], table, "qt")), cell(ours), (ours <= 1.5 ? "yes" : (growth(works[w], table, "raw") > 1.5 ? "no; nor raw" : "no"))
    }
}
function print_hand_over(    t, k, i, table, ours, answer, part, second, last) {
    print "\n| hand-over of 2 MiB, milliseconds | library | the least | block | FlatBuffers | own query: steps | own query: vectors | own query: library | faster than each of the three |"
    print "|---|--:|--:|--:|--:|--:|--:|--:|---|"
    for (t = 1; t <= 2; t++) {
        table = t == 1 ? "wide" : "narrow"
        wayCount = split("vantry least block flatbuffers own-steps own-vectors own-vantry", ways, " ")
        printf "| %s, %d rows |", table, time["handover", table, "vantry", "rows"]
        for (i = 1; i <= wayCount; i++) printf " %.2f |", time["handover", table, ways[i], "typical"] / 1e6
        ours = time["handover", table, "vantry", "typical"]; answer = ""
        for (i = 5; i <= wayCount; i++) answer = answer (i == 5 ? "" : ", ") (ours < time["handover", table, ways[i], "typical"] ? "yes" : "no")
        printf " %s |\n", answer
    }
    print "\n| a process that lives on, milliseconds | 2nd | 100th | ratio | goal | reached |"
    print "|---|--:|--:|--:|--:|---|"
    for (t = 1; t <= 2; t++) {
        table = t == 1 ? "wide" : "narrow"
        for (k = 1; k <= 2; k++) {
            part = k == 1 ? "" : "_whole"; second = time["life", table, "vantry", "second" part]; last = time["life", table, "vantry", "hundredth" part]
            printf "| %s, %s | %.2f | %.2f | %.2f | 1.2 | %s |\n", table, k == 1 ? "the hand-over" : "with the query before it and the release after it", second / 1e6, last / 1e6, ratio(last, second), (ratio(last, second) <= 1.2 ? "yes" : "no")
        }
    }
}
