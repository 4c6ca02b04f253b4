# Sourced by vantryctl_test.sh: help, wrong use, and files that are not what they should be.

commands=('' query check backup restore shm 'shm list' 'shm show' 'shm purge' screen)

case_help() {
    local command
    for command in "${commands[@]}"; do
        # shellcheck disable=SC2086
        ctl $command --help
        equal "$code" 0 "the exit code of the help of \"$command\""
        equal "$err" "" "standard error of the help of \"$command\""
        has "$out" "Usage: " "the help of \"$command\""
        has "$out" "Examples:"$'\n'"  vantryctl $command" "the help of \"$command\""
        [[ $command == shm ]] || has "$out" "Exit codes: 0 " "the help of \"$command\""
    done
    ctl --help
    for command in query check backup restore shm screen; do
        has "$out" "$command " "the help"
    done
    ctl --version
    equal "$out" "vantryctl $VANTRY_VERSION" "the version"
    equal "$code" 0 "the exit code of --version"
}

case_usage() {
    films "$work/f.db"
    expect 2 "a command is missing"
    expect 2 "unknown command frobnicate" frobnicate
    expect 2 "unknown option --frobnicate" query "$work/f.db" --frobnicate
    expect 2 "unexpected argument three" check "$work/f.db" three
    expect 2 "DATABASE is missing" check
    expect 2 "DATABASE or --uri is missing" query
    expect 2 "a command is missing" shm
    has "$err" "Try 'vantryctl shm --help'." "the hint"
    expect 2 "NAME is missing" shm show
    expect 2 "--format: xml not in {table,csv,json,lines}" query "$work/f.db" films --format xml
    expect 2 "--limit: " query "$work/f.db" films --limit -3
    expect 2 "--limit: " query "$work/f.db" films --limit many
    expect 2 "--stage: third not in {first,second}" restore "$work/f.db" --stage third
    expect 2 "a table is missing" query "$work/f.db" --where "1"
    expect 2 "--order holds a semicolon" query "$work/f.db" films --order "year; drop"
    expect 2 "a semicolon ends the statement too early" query "$work/f.db" films --where "1; DELETE FROM films"
    expect 2 "the condition has 2 placeholders, and there are 1 argument" \
        query "$work/f.db" films --where "year = ? OR title = ?" --arg 1
    expect 2 "the condition has 0 placeholders, and there are 1 argument" query "$work/f.db" films --arg 1
    expect 2 "--uri wants a content URI" query --uri films "$work/f.db"
    expect 2 "--uri wants a content URI" query --uri content://x "$work/f.db"
    expect 2 "only the database of content://com.brenwick.tiles/ has a known place" query --uri content://other/x
    expect 2 "--older-than wants an age" shm purge --older-than soon
    expect 2 "--older-than wants an age" shm purge --older-than 3weeks
    expect 2 "x is no name of a stored result" shm show x
    expect 2 "/.vantry_../x is no name" shm show /.vantry_../x
    expect 2 "--accelerator: " screen "$work/f.db" --accelerator 0
    equal "$(sqlite3 "$work/f.db" 'SELECT count(*) FROM films')" 5 "the number of films"
}

case_completion() {
    local script=$VANTRY_SOURCE/tools/vantryctl/vantryctl.bash
    # complete WORD ...: what the shell offers for the last word.
    complete_words() {
        bash --norc -c '
            if [ "$1" = with ]; then . /usr/share/bash-completion/bash_completion; fi
            . "$2"; shift 2
            COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
            _vantryctl; printf "%s\n" "${COMPREPLY[@]}"' - "$library" "$script" "$@" 2>&1 | LC_ALL=C sort | tr '\n' ' '
    }
    local library
    for library in without with; do
        [[ $library == without || -f /usr/share/bash-completion/bash_completion ]] || continue
        equal "$(bash --norc -c '. "$1"; complete -p vantryctl' - "$script")" \
            "complete -F _vantryctl vantryctl" "the registration"
        equal "$(complete_words vantryctl '')" \
            "--help --version backup check query restore screen shm " "the completion of nothing, $library"
        equal "$(complete_words vantryctl re)" "restore " "the completion of re, $library"
        equal "$(complete_words vantryctl shm '')" "--help list purge show " "the completion of shm, $library"
        equal "$(complete_words vantryctl query x --form)" "--format " "the completion of --form, $library"
        equal "$(complete_words vantryctl query x --format j)" "json " "the completion of j, $library"
        equal "$(complete_words vantryctl restore x --stage '')" "first second " "the completion of stages, $library"
        cd "$work" && touch one.db
        equal "$(complete_words vantryctl check o)" "one.db " "the completion of a file, $library"
        echo > "/dev/shm/.vantry_${key}7"
        equal "$(complete_words vantryctl shm show "/.vantry_$key")" "/.vantry_${key}7 " "the completion of a result"
    done
    # Every option that the program has is offered.
    local command option
    for command in "${commands[@]}"; do
        # shellcheck disable=SC2086
        ctl $command --help
        for option in $(grep -o '^  [-a-z,]*--[a-z-]*' "$work/out" | grep -o -- '--[a-z-]*'); do
            # shellcheck disable=SC2086
            has " $(complete_words vantryctl $command --)" " $option " "the completion of the options of \"$command\""
        done
    done
}

case_manual() {
    local page=$VANTRY_SOURCE/tools/vantryctl/vantryctl.1.scd command option
    if ! command -v scdoc > /dev/null; then
        echo "SKIPPED: scdoc is not installed"
        exit 77
    fi
    scdoc < "$page" > "$work/vantryctl.1" 2> "$work/err" || fail "scdoc refuses the page"
    equal "$(cat "$work/err")" "" "what scdoc complained of"
    if command -v man > /dev/null; then
        LC_ALL=C.UTF-8 man --warnings -E UTF-8 -l -Tutf8 -Z "$work/vantryctl.1" 2> "$work/err" > /dev/null
        equal "$(cat "$work/err")" "" "what man complained of"
    fi
    for command in "${commands[@]}"; do
        [[ -z $command || $command == shm ]] || has "$(cat "$page")" "*$command*" "the manual"
        # shellcheck disable=SC2086
        ctl $command --help
        for option in $(grep -o '^  [-a-z,]*--[a-z-]*' "$work/out" | grep -o -- '--[a-z-]*'); do
            has "$(cat "$page")" "*$option*" "the manual"
        done
    done
}

# What looks at a database, each as one call.
look_at_everything() {
    ctl query "$1"
    ctl query "$1" films --types
    ctl check "$1"
    ctl check --quick "$1"
    ctl screen "$1"
    ctl restore "$1" --dry-run
}

# Whatever journal a database has, looking at it leaves its directory as it is.
case_files_stay() {
    local kind before rows
    mkdir "$work/tmp"
    export TMPDIR=$work/tmp
    for kind in delete wal-closed wal-open wal-left wal-copied hot-journal corrupted damaged-wal; do
        mkdir "$work/$kind"
        cd "$work/$kind" || exit 1
        rows=5
        films f.db
        case $kind in
        wal-*) sqlite3 f.db 'PRAGMA journal_mode=wal; INSERT INTO films(title) VALUES (6)' > /dev/null && rows=6 ;;
        esac
        case $kind in
        wal-open | wal-left | wal-copied | damaged-wal)
            mkdir "$work/source"
            mv f.db "$work/source/f.db"
            hold "$work/source/f.db" "PRAGMA journal_mode=wal; PRAGMA wal_autocheckpoint=0; INSERT INTO films(title) VALUES (7);"
            case $kind in
            # Of a process that was killed.
            wal-left) cp "$work"/source/f.db* . && release ;;
            wal-copied) cp "$work"/source/f.db "$work"/source/f.db-wal . && release ;;
            damaged-wal) cp "$work"/source/f.db . && head -c 4000 /dev/urandom > f.db-wal && release ;;
            esac
            rows=$((rows + 1))
            ;;
        hot-journal)
            mkdir "$work/source"
            many "$work/source/f.db" 3000
            films "$work/source/f.db"
            hold "$work/source/f.db" "PRAGMA cache_size=2; BEGIN; UPDATE many SET text = 'spoilt'; UPDATE films SET title = 'spoilt';"
            cp "$work"/source/f.db "$work"/source/f.db-journal .
            printf 'ROLLBACK;\n' >&9
            release
            ;;
        corrupted)
            many f.db 3000
            damage f.db 3 20
            ;;
        esac
        [[ $kind != wal-open ]] || cd "$work/source" || exit 1
        cp f.db f.db.sqlite
        before=$(state .)
        look_at_everything f.db
        equal "$(state .)" "$before" "the directory after looking ($kind)"
        ctl query f.db films --columns 'count(*)' --format csv
        case $kind in
        corrupted | damaged-wal) ;;
        *) equal "$out" "count(*)"$'\n'"$rows" "the rows that are seen ($kind)" ;;
        esac
        ctl check f.db
        case $kind in
        corrupted) equal "$code" 1 "the exit code of the check ($kind)" ;;
        damaged-wal) ;;
        *)
            equal "$code" 0 "the exit code of the check ($kind)"
            has "$out" "f.db: sound" "the check ($kind)"
            ;;
        esac
        case $kind in
        hot-journal) has "$out" "A copy was checked: a write to it was interrupted" "the check ($kind)" ;;
        wal-copied) has "$out" "A copy was checked: its write-ahead log has no index" "the check ($kind)" ;;
        esac
        equal "$(state .)" "$before" "the directory after the check ($kind)"
        [[ $kind != wal-open ]] || release
        cd "$work" || exit 1
        rm -rf "$work/source"
    done
    equal "$(ls "$work/tmp")" "" "what is left in the temporary directory"
}

case_bad_files() {
    cd "$work" || exit 1
    mkdir -p d/sub
    echo "just a text, and long enough to have a header of one hundred bytes, which no database begins with at all." > d/text.db
    : > d/empty.db
    head -c 60 /dev/urandom > d/short.db
    mkfifo d/pipe.db
    ln -s nowhere d/dangling.db
    ln -s loop.db d/loop.db
    local before command
    before=$(state d)
    for command in "query FILE films" "query FILE" "check FILE" "check --quick FILE" "backup FILE" "screen FILE" \
        "screen FILE --svg $work/picture.svg"; do
        # shellcheck disable=SC2086
        {
            expect 1 "cannot open d/missing.db: no such file" ${command/FILE/d/missing.db}
            expect 1 "cannot open d/no/x.db: no such file" ${command/FILE/d/no/x.db}
            expect 1 "cannot open d/text.db/x: a part of its path is no directory" ${command/FILE/d/text.db/x}
            expect 1 "cannot open d/sub: it is a directory" ${command/FILE/d/sub}
            expect 1 "cannot open d/pipe.db: it is no regular file" ${command/FILE/d/pipe.db}
            expect 1 "cannot open d/dangling.db: no such file" ${command/FILE/d/dangling.db}
            expect 1 "cannot open d/loop.db: its links lead in a circle" ${command/FILE/d/loop.db}
            expect 1 "d/empty.db is empty: nothing was ever written to it" ${command/FILE/d/empty.db}
            expect 1 "d/text.db is no database" ${command/FILE/d/text.db}
            expect 1 "d/short.db is no database" ${command/FILE/d/short.db}
        }
    done
    expect 1 "cannot open d/missing.db.sqlite: no such file" restore d/missing.db
    expect 1 "cannot open d/text.db.sqlite.bak: no such file" restore --stage second --force d/text.db
    expect 1 "d/dangling.db is a symbolic link" restore d/dangling.db
    equal "$(state d)" "$before" "the directory"
    [[ ! -e $work/picture.svg ]] || fail "a picture was made"
    # A name with everything that a name may hold.
    mkdir 'a b?c#d%41&e'
    films 'a b?c#d%41&e/f?mode=rw.db'
    ctl query 'a b?c#d%41&e/f?mode=rw.db' films --columns 'count(*)' --format csv
    equal "$out" "count(*)"$'\n'5 "the count in a file of a strange name"
    expect 1 $'cannot open a\\nb\\x1b[31m: no such file' check $'a\nb\x1b[31m'
    films f.db
    ln -s f.db link.db
    ctl query link.db films --limit 1
    equal "$code" 0 "the exit code through a link"
    expect 1 "link.db is a symbolic link" backup link.db
    # Standard output that takes nothing.
    "$VANTRYCTL" query f.db films > /dev/full 2> err
    equal "$?" 1 "the exit code of a full output"
    has "$(cat err)" "vantryctl: cannot write standard output" "standard error of a full output"
}

case_no_right() {
    if [ "$(id -u)" -ne 0 ]; then
        as_user=()
    else
        as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    fi
    if ! "${as_user[@]}" "$VANTRYCTL" --version > /dev/null 2>&1; then
        echo "SKIPPED: an ordinary user cannot start the program here"
        exit 77
    fi
    chmod 755 "$work"
    cd "$work" || exit 1
    mkdir open closed
    films open/f.db
    films open/readable.db
    tiles open/tiles.db
    films closed/f.db
    cp open/readable.db open/readable.db.sqlite
    chmod 600 open/f.db
    chmod 644 open/readable.db*
    chmod 700 closed
    if [ "$(id -u)" -ne 0 ]; then
        chmod 000 open/f.db closed
        chmod 555 open
    fi
    cat > as_user << RUN
#!/bin/sh
exec ${as_user[*]} "$VANTRYCTL" "\$@"
RUN
    chmod 755 as_user
    local tool=$VANTRYCTL VANTRYCTL=$work/as_user
    local before
    before=$([ "$(id -u)" -ne 0 ] || state open)
    expect 1 "cannot open open/f.db: permission denied" query open/f.db
    expect 1 "cannot open open/f.db: permission denied" check open/f.db
    expect 1 "cannot open closed/f.db: permission denied" check closed/f.db
    expect 1 "cannot write open/readable.db.sqlite: permission denied" backup open/readable.db
    ctl query open/readable.db films
    equal "$code" 0 "the exit code for a file that may be read"
    ctl check open/readable.db
    equal "$code" 0 "the exit code of a check of a file that may be read"
    ctl restore open/readable.db --force
    equal "$code" 1 "the exit code of a restore that must not be"
    has "$err" "cannot write open/readable.db: permission denied" "standard error of the restore"
    expect 1 "cannot write open/x.svg: permission denied" screen open/tiles.db --svg open/x.svg
    [ "$(id -u)" -ne 0 ] || equal "$(state open)" "$before" "the directory"
    VANTRYCTL=$tool
    chmod -R u+rwx open closed
}
