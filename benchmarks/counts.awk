# Writes the counts (work, table, implementation, rows, instructions, allocations: whole numbers) as two tables, and
# those of a hand-over's parts as a third.
function head(title,    i) {
    printf "| %s |", title
    for (i = 1; i <= nameCount; i++) if (order[i] in present) printf " %s |", order[i]
    printf "\n|---|"
    for (i = 1; i <= nameCount; i++) if (order[i] in present) printf "--:|"
    printf "\n"
}
BEGIN { FS = "\t"; nameCount = split("raw flat sqlitecpp qt vantry vantry-log", order, " ") }
$1 ~ /^(store|fetch|visit)$/ {
    parts[++partCount] = sprintf("| %s, %s | %.0f | %.2f |", $1, $2, $5 / $4, $6 / $4)
    next
}
{
    key = $1 ", " $2
    if (!(key in seen)) { seen[key] = 1; keys[++count] = key }
    instructions[key, $3] = $5 / $4; allocations[key, $3] = $6 / $4; present[$3] = 1
    cells[key] = $2 == "wide" ? 26 : 3
}
END {
    head("instructions a row (times raw)")
    for (k = 1; k <= count; k++) {
        printf "| %s |", keys[k]; raw = instructions[keys[k], "raw"]
        for (i = 1; i <= nameCount; i++) if (order[i] in present) {
            if (!((keys[k], order[i]) in instructions)) { printf " |"; continue }
            value = instructions[keys[k], order[i]]
            printf " %.*f", value < 1000 ? 1 : 0, value
            if (order[i] != "raw" && raw > 0) printf " (%.2f)", value / raw
            printf " |"
        }
        printf "\n"
    }
    printf "\n"
    head("allocations a row (a cell)")
    for (k = 1; k <= count; k++) {
        if (keys[k] !~ /^(insert|read)/) continue
        printf "| %s |", keys[k]
        for (i = 1; i <= nameCount; i++) if (order[i] in present) {
            if (!((keys[k], order[i]) in allocations)) { printf " |"; continue }
            value = allocations[keys[k], order[i]]
            printf " %.2f (%.2f) |", value, value / cells[keys[k]]
        }
        printf "\n"
    }
    if (!partCount) exit
    print "\n| a part of a hand-over, the library alone | instructions a row | allocations a row |\n|---|--:|--:|"
    for (k = 1; k <= partCount; k++) print parts[k]
}
