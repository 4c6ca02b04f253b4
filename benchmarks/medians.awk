# Writes the medians of the works, nanoseconds a row, as a table a work.
BEGIN { FS = "\t"; nameCount = split("raw flat sqlitecpp qt vantry vantry-log", order, " ") }
$4 ~ /^[0-9]+$/ {
    time[$1, $2, $3, $4] = $5 / $4; present[$3] = 1
    if (!($4 in rows)) { rows[$4] = 1; rowList[++rowCount] = $4 + 0 }
}
END {
    for (i = 1; i < rowCount; i++) for (j = i + 1; j <= rowCount; j++) if (rowList[j] < rowList[i]) {
        swap = rowList[i]; rowList[i] = rowList[j]; rowList[j] = swap
    }
    workCount = split("insert read forward backward destroy", works, " ")
    printf "| nanoseconds a row (times raw) |"
    for (i = 1; i <= nameCount; i++) if (order[i] in present) printf " %s |", order[i]
    printf "\n|---|"
    for (i = 1; i <= nameCount; i++) if (order[i] in present) printf "--:|"
    printf "\n"
    for (w = 1; w <= workCount; w++) for (t = 1; t <= 2; t++) for (r = 1; r <= rowCount; r++) {
        table = t == 1 ? "wide" : "narrow"; key = works[w] SUBSEP table; raw = time[key, "raw", rowList[r]]
        printf "| %s, %s, %d |", works[w], table, rowList[r]
        for (i = 1; i <= nameCount; i++) if (order[i] in present) {
            if (!((key, order[i], rowList[r]) in time)) { printf " |"; continue }
            value = time[key, order[i], rowList[r]]
            printf " %.*f", value < 100 ? 1 : 0, value
            if (order[i] != "raw" && raw > 0) printf " (%.2f)", value / raw
            printf " |"
        }
        printf "\n"
    }
}
