# Takes the medians of the repetitions out of Google Benchmark's JSON: name, nanoseconds, and the counters of a life.
#   work/table/implementation/rows -> "work table implementation rows nanoseconds"
/"run_name":/ { split($0, part, "\""); name = part[4]; sub(/\/iterations.*/, "", name); aggregate = "" }
/"aggregate_name":/ { split($0, part, "\""); aggregate = part[4] }
/"(typical|store|fetch|visit|object|second|hundredth|second_whole|hundredth_whole|rows)":/ {
    split($0, part, "\""); field = part[2]; value = part[3]; gsub(/[:, ]/, "", value)
    if (aggregate != "median") next
    medians++
    count = split(name, word, "/")
    if (count == 4 && field == "typical") {
        printf "%s\t%s\t%s\t%s\t%.1f\n", word[1], word[2], word[3], word[4], value
    } else if (count == 3) {
        printf "%s\t%s\t%s\t%s\t%.1f\n", word[1], word[2], word[3], field, value
    } else if (count == 2 && field != "typical") {
        printf "%s\t%s\tvantry\t%s\t%.1f\n", word[1], word[2], field, value
    }
}
END { if (!medians) { print "there are no medians: one repetition has none" > "/dev/stderr"; exit 1 } }
