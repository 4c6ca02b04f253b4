# Sourced by vantryctl_test.sh: the rows of a query.

case_query() {
    cd "$work" || exit 1
    films f.db
    ctl query f.db
    equal "$out" "name   type   columns
─────  ─────  ───────
films  table        5
old    view         1" "the tables"
    equal "$err" "2 tables" "what follows the tables"
    ctl query f.db films --columns title,year --where "year > ? AND title <> ?" --arg 1900 --arg Häxan --order year
    equal "$out" 'title             year
────────────────  ────
Say "so", or not  1903
The General       1926' "the rows"
    equal "$err" "2 rows" "what follows the rows"
    equal "$code" 0 "the exit code"
    ctl query f.db films --where "year = ?" --arg -5 --columns _id --format csv
    equal "$out" $'_id\n4' "the row of a negative argument"
    ctl query f.db films --where "title = ?" --arg "" --columns _id --format csv
    equal "$out" $'_id\n4' "the row of an empty argument"
    sqlite3 f.db "INSERT INTO films VALUES (6, '''quoted''', 1, 1, 1)"
    ctl query f.db films --where "title = ?" --arg "'quoted'" --columns _id --format csv
    equal "$out" $'_id\n6' "the row of a quoted argument"
    ctl query f.db films --where "title = ?" --arg "' OR 1 --" --columns _id --format csv
    equal "$out" "_id" "the rows of an argument that is SQL"
    ctl query f.db films --limit 0 --columns title,year
    equal "$out" $'title  year\n─────  ────' "a table without rows"
    equal "$err" "0 rows" "what follows no rows"
    ctl query f.db old --format csv
    equal "$out" $'title\n"Say ""so"", or not"\n""\n\'quoted\'' "a view"
    ctl query f.db films --columns title --types --limit 2
    equal "$out" $'title\nTEXT\n───────────\nThe General\nHäxan' "a table with types"
    equal "$err" $'title: text 2\n2 rows' "the stored types"
    ctl query --uri content://com.brenwick.tiles/films f.db --columns 'count(*)' --format csv
    equal "$out" $'count(*)\n6' "the rows of a URI"
    expect 1 "cannot read f.db: no such table: film" query f.db film
    expect 1 "cannot read f.db: no such table: films\"; --" query f.db 'films"; --'
    expect 1 "cannot read f.db: no such column: x" query f.db films --columns x
    expect 1 'cannot read f.db: near "ORDER": syntax error' query f.db films --where "1 =" --order year
    # The device's own database, which this machine need not have.
    ctl query --uri content://com.brenwick.tiles/tiles --limit 0
    [[ $code == 0 || $err == "vantryctl: cannot open /opt/usr/apps/org.orvane.content-tiles-provider/data/px_tiles.db: "* ]] ||
        fail "the device's own database: $err"
    sqlite3 f.db 'CREATE TABLE "a ""b"" c" (x); INSERT INTO "a ""b"" c" VALUES (1)'
    ctl query f.db 'a "b" c' --format csv
    equal "$out" $'x\n1' "a table of a strange name"
    # The library's own lines appear for those who want them, and only then.
    DLOG_LEVEL=info ctl query f.db films
    has "$err" "I/vantry(" "standard error with DLOG_LEVEL"
}

case_formats() {
    cd "$work" || exit 1
    films f.db
    sqlite3 f.db "INSERT INTO films VALUES (6, 'a' || char(10) || 'b' || char(27) || '[1m' || char(9) || char(0x202e) || 'c',
        9223372036854775807, -9e999, cast(x'ff41' as text)), (7, cast(x'41e282' as text), 0, 1.5, zeroblob(3))"
    ctl query f.db films --format csv
    equal "$(head -n 5 out)" "_id,title,year,rating,poster
1,\"The General\",1926,8.5,X'00ff27'
2,Häxan,1922,,
3,\"Say \"\"so\"\", or not\",1903,0.1,X''
4,\"\",-5,1e+300," "the first lines of CSV"
    ctl query f.db films --format json
    equal "$(sqlite3 :memory: "SELECT json_valid(readfile('out'))")" 1 "the validity of JSON"
    equal "$(sqlite3 :memory: "SELECT json_array_length(readfile('out'))")" 7 "the rows of JSON"
    equal "$(sqlite3 :memory: "SELECT json_extract(readfile('out'), '\$[0].title', '\$[0].poster.blob', '\$[2].title', '\$[5].year')")" \
        '["The General","00ff27","Say \"so\", or not",9223372036854775807]' "values of JSON"
    equal "$(sqlite3 :memory: "SELECT json_extract(readfile('out'), '\$[5].title') = 'a' || char(10) || 'b' || char(27) || '[1m' || char(9) || char(0x202e) || 'c'")" \
        1 "a text with control characters"
    if command -v python3 > /dev/null; then
        python3 -c 'import json; json.load(open("out", encoding="utf-8"))' || fail "JSON is not read elsewhere"
    fi
    ctl query f.db films --format json --limit 0
    equal "$out" "[]" "JSON without rows"
    ctl query f.db films --columns "_id, _id, _id" --format json --limit 1
    equal "$out" $'[\n{"_id": 1, "_id:2": 1, "_id:3": 1}\n]' "columns of one name"
    ctl query f.db films --format lines --where "_id IN (2, 6)"
    equal "$out" "   _id = 2
 title = Häxan
  year = 1922
rating = NULL
poster = NULL

   _id = 6
 title = a\\nb\\x1b[1m\\t\\u202ec
  year = 9223372036854775807
rating = -9e999
poster = \\xffA" "lines"
    equal "$err" "2 rows" "what follows lines"
    ctl query f.db films --columns title --where "_id = 7" --format lines
    equal "$out" 'title = A\xe2\x82' "a text that is cut within a character"
    # Text goes into a pipe whole, with zero bytes.
    sqlite3 f.db "CREATE TABLE z (t); INSERT INTO z VALUES (cast(x'41004200' as text))"
    "$VANTRYCTL" query f.db z --format csv 2> /dev/null | od -An -tx1 | tr -d ' \n' > bytes
    equal "$(cat bytes)" "740a410042000a" "a text with zero bytes"
    ctl query f.db z
    has "$out" 'A\x00B\x00' "a table with zero bytes"
}

case_terminal() {
    cd "$work" || exit 1
    films f.db
    sqlite3 f.db "CREATE TABLE wide (a, b, c); INSERT INTO wide VALUES ('$(printf 'x%.0s' {1..100})', 'kurz', '日本語の長い文章がここにあります日本語の長い文章がここに');
        CREATE TABLE very (c01, c02, c03, c04, c05, c06, c07, c08, c09, c10, c11, c12);
        INSERT INTO very VALUES (1, 'aaaaaaaaaaaaaaaa', 'bbbbbbbbbbbbbbb', 'ccccccccccccccccc', 'dddddddddddddd', 'eeeeeeeeeeeee', 'ffffffffffffff', 'gggggggggggg', 'hhhhhhhhhhhh', 'iiiiiiiiiiii', 'jjjjjjjjjj', 'kkkkkkkk')"
    on_terminal "'$VANTRYCTL' query f.db wide"
    equal "$code" 0 "the exit code"
    has "$out" $'\x1b[1m' "a terminal"
    equal "$(plain "$out" | wc -l)" 4 "the lines on a terminal"
    equal "$(plain "$out" | tail -n 1)" "1 row" "the last line on a terminal"
    # A line under the names is as long as the table is wide.
    equal "$(plain "$out" | sed -n 2p | sed 's/─/-/g' | tr -d '\n' | wc -c)" 80 "the width of the table"
    has "$out" "x…" "a wide cell"
    has "$out" "日本語の長い文章がここにあります日…" "a wide cell of wide characters"
    has "$out" "kurz" "a narrow cell"
    on_terminal "'$VANTRYCTL' query f.db very"
    has "$out" "4 more columns did not fit: see --columns, and --format lines" "a terminal with too many columns"
    on_terminal "stty cols 200; '$VANTRYCTL' query f.db very"
    lacks "$out" "did not fit" "a wide terminal"
    on_terminal "stty cols 3; '$VANTRYCTL' query f.db very"
    equal "$code" 0 "the exit code on a terminal of 3 columns"
    on_terminal "NO_COLOR=1 '$VANTRYCTL' query f.db films --columns title"
    lacks "$out" $'\x1b' "a terminal without colours"
    on_terminal "'$VANTRYCTL' check missing.db"
    equal "$(plain "$out")" "vantryctl: cannot open missing.db: no such file" "an error on a terminal"
    equal "$code" 1 "the exit code of an error on a terminal"
    # In a pipe a table is 80 wide.
    ctl query f.db wide
    lacks "$out" $'\x1b' "a pipe"
    equal "$(sed -n '2s/─/-/gp' out | tr -d '\n' | wc -c)" 80 "the width of the table in a pipe"
}

case_incomplete() {
    cd "$work" || exit 1
    many m.db 3000
    # The last pages of the table.
    damage m.db $(($(stat -c %s m.db) / 1024 - 20)) 20
    ctl query m.db many --format json
    equal "$code" 1 "the exit code of a damaged table"
    equal "$(grep -c '^vantryctl: ' err)" 1 "the number of complaints"
    has "$err" "vantryctl: the result is incomplete: after " "standard error of a damaged table"
    has "$err" "the reading ended with code 11, database disk image is malformed" "standard error of a damaged table"
    equal "$(sqlite3 :memory: "SELECT json_valid(readfile('out'))")" 1 "the validity of incomplete JSON"
    local rows
    rows=$(sqlite3 :memory: "SELECT json_array_length(readfile('out'))")
    ((rows > 100 && rows < 3000)) || fail "$rows rows were read"
    on_terminal "'$VANTRYCTL' query m.db many"
    equal "$code" 1 "the exit code on a terminal"
    has "$out" "vantryctl: the result is incomplete" "the terminal"
}

# Neither does a result fill the memory, nor does a table wait for its last row.
case_huge() {
    cd "$work" || exit 1
    sqlite3 big.db "CREATE TABLE big (_id INTEGER PRIMARY KEY, text TEXT);
        WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200000)
        INSERT INTO big SELECT i, printf('%0200d', i) FROM n"
    local format limit
    # In KiB: the whole result would take 40 MB and more. A sanitizer needs room of its own.
    for format in table csv; do
        if [[ $(ldd "$VANTRYCTL") == *libasan* ]]; then
            limit=unlimited
        else
            limit=65536
        fi
        (ulimit -v "$limit" && exec "$VANTRYCTL" query big.db big --format $format) > out 2> err
        equal "$?" 0 "the exit code in little memory ($format): $(cat err)"
        equal "$(cat err)" "200 000 rows" "what follows ($format)"
        equal "$(($(wc -l < out) >= 200001))" 1 "whether all lines are there ($format)"
    done
    # Who reads the first lines only is not waited for.
    "$VANTRYCTL" query big.db big 2> err | head -n 3 > out
    equal "$(wc -l < out)" 3 "the first lines"
}

case_progress() {
    cd "$work" || exit 1
    films f.db
    # counting N: a condition that counts so far, in about a tenth of a microsecond a step.
    counting() { echo "_id = 1 AND (WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < $1) SELECT count(*) FROM n) > 0"; }
    local steps
    for steps in 20000000 80000000 320000000; do
        on_terminal "'$VANTRYCTL' query f.db films --columns title --where \"$(counting $steps)\""
        # On a machine so fast that it was done before two seconds had passed, there is nothing to tell.
        [[ $out == *reading* ]] && break
    done
    # A stall may take one of the seconds away, but nothing is said before the second one.
    [[ $out =~ 'reading ... '[2-9]' s' ]] || fail "a long query on a terminal says: $out"
    lacks "$out" "reading ... 1 s" "a long query on a terminal"
    has "$(plain "$out" | sed 's/.*\r//')" "The General" "the end of a long query"
    # In a pipe nothing is said, however long it takes.
    timeout 3 "$VANTRYCTL" query f.db films --where "$(counting 2000000000)" > out 2> err
    equal "$?" 124 "the exit code of what was stopped"
    equal "$(cat out err)" "" "what a long query in a pipe says"
    on_terminal "'$VANTRYCTL' query f.db films --columns title"
    lacks "$out" "reading" "a short query on a terminal"
}
