# Sourced by vantryctl_test.sh: check, backup and restore.

case_check() {
    cd "$work" || exit 1
    films f.db
    ctl check f.db
    equal "$code" 0 "the exit code of a sound database"
    has "$out" "f.db: sound (whole check, " "the check of a sound database"
    equal "$err" "" "standard error of a sound database"
    ctl check --quick f.db
    has "$out" "f.db: sound (quick check: indexes were not compared with their tables, " "the quick check"
    many m.db 3000
    damage m.db 10 30
    ctl check m.db
    equal "$code" 1 "the exit code of a corrupted database"
    equal "$(head -n 1 out)" "m.db: corrupted" "the check of a corrupted database"
    has "$out" "btreeInitPage() returns error code" "what SQLite found"
    equal "$(($(wc -l < out) <= 11))" 1 "whether ten lines are enough"
    # An index that lacks a row is found by the whole check only.
    sqlite3 i.db "CREATE TABLE t (a); CREATE INDEX ia ON t(a); INSERT INTO t VALUES (1), (2);
        PRAGMA writable_schema=on; UPDATE sqlite_master SET sql = replace(sql, 't(a)', 't(a) WHERE a > 5') WHERE name = 'ia'"
    ctl check i.db
    equal "$code" 1 "the exit code of a wrong index"
    ctl check --quick i.db
    equal "$code" 0 "the exit code of a wrong index, quickly"
    # A schema that cannot be read.
    films s.db
    damage s.db 1 3
    printf 'SQLite format 3\0' | dd of=s.db conv=notrunc status=none
    ctl check s.db
    equal "$code" 1 "the exit code of a damaged schema"
    films t.db
    truncate -s 5000 t.db
    ctl check t.db
    equal "$code" 1 "the exit code of a truncated file"
    equal "$(head -n 1 out)" "t.db: corrupted" "the check of a truncated file"
}

case_busy() {
    cd "$work" || exit 1
    films f.db
    cp f.db f.db.sqlite
    local before
    before=$(state . "f.db*")
    hold "$work/f.db" "BEGIN EXCLUSIVE;"
    ctl check f.db
    equal "$code" 1 "the exit code of a busy database"
    equal "$(head -n 1 out)" "f.db: busy" "the check of a busy database"
    has "$out" "f.db is busy: sqlite3 (process ${holders[-1]}) keeps it locked" "who keeps it locked"
    expect 1 "f.db is busy: sqlite3 (process ${holders[-1]})" query f.db films
    expect 1 "f.db is busy" screen f.db
    ctl backup f.db
    equal "$code" 1 "the exit code of the backup of a busy database"
    has "$err" "is busy: sqlite3 (process ${holders[-1]}) keeps it locked; nothing was copied, the side file of " \
        "standard error of the backup"
    ctl restore f.db --force
    equal "$code" 1 "the exit code of the restore of a busy database"
    has "$err" "is busy" "standard error of the restore"
    release
    equal "$(state . "f.db*")" "$before" "the database and its side file"
    ctl check f.db
    equal "$code" 0 "the exit code when nobody holds it any more"
    # Readers do not disturb.
    hold "$work/f.db" "BEGIN; SELECT count(*) FROM films;"
    ctl check f.db
    equal "$code" 0 "the exit code beside a reader"
    release
}

case_backup() {
    cd "$work" || exit 1
    films f.db
    ctl backup f.db
    equal "$code" 0 "the exit code"
    equal "$out" "f.db: sound, 8 192 bytes copied to f.db.sqlite, which is sound too" "the answer"
    equal "$err" "" "standard error"
    equal "$(sqlite3 f.db.sqlite 'SELECT count(*) FROM films')" 5 "the rows of the side file"
    touch -d 2020-01-02T03:04:05Z f.db.sqlite
    sqlite3 f.db "DELETE FROM films WHERE _id = 1"
    ctl backup "$work/f.db"
    has "$out" "The side file of 2020-01-02 03:04:05 was replaced." "the answer"
    equal "$(sqlite3 f.db.sqlite 'SELECT count(*) FROM films')" 4 "the rows of the new side file"
    # What was written to a write-ahead log belongs to it.
    sqlite3 f.db 'PRAGMA journal_mode=wal' > held
    hold "$work/f.db" "PRAGMA wal_autocheckpoint=0; INSERT INTO films(title) VALUES ('late');"
    ctl backup f.db
    equal "$code" 0 "the exit code with a write-ahead log"
    equal "$(sqlite3 f.db.sqlite 'SELECT count(*) FROM films')" 5 "the rows of the side file of a write-ahead log"
    release
    # A corrupted database is worth less than its old copy.
    many m.db 3000
    ctl backup m.db
    damage m.db 10 30
    local before
    before=$(sha256sum m.db m.db.sqlite)
    ctl backup m.db
    equal "$code" 1 "the exit code for a corrupted database"
    has "$err" "m.db is corrupted: " "standard error"
    has "$err" "; nothing was copied, the side file of " "standard error"
    equal "$(sha256sum m.db m.db.sqlite)" "$before" "both files"
    # A side file that is something else is not written over.
    echo "a letter, which somebody keeps under this name, and which has more bytes than the header of a database has" > f.db.sqlite
    expect 1 "f.db.sqlite is no database: it does not begin as SQLite's files do; it is not written over" backup f.db
    rm f.db.sqlite
    mkdir f.db.sqlite
    expect 1 "cannot write f.db.sqlite: it is a directory" backup f.db
    if [ "$(id -u)" -eq 0 ]; then
        films o.db
        chown 65534:65534 o.db
        chmod 640 o.db
        ctl backup o.db
        equal "$(stat -c '%u %g %a' o.db.sqlite)" "65534 65534 640" "owner and rights of the side file"
    fi
}

case_restore() {
    cd "$work" || exit 1
    many m.db 3000
    chmod 640 m.db
    [ "$(id -u)" -ne 0 ] || chown 65534:65534 m.db
    local rights
    rights=$(stat -c '%u %g %a' m.db)
    ctl backup m.db
    touch -d 2020-01-02T03:04:05Z m.db.sqlite
    sqlite3 m.db "CREATE TABLE more (x); INSERT INTO more VALUES (1), (2); DELETE FROM many WHERE _id > 2990"
    damage m.db 40 3
    ctl restore m.db
    equal "$code" 0 "the exit code: $err"
    has "$out" "m.db is corrupted: " "the report"
    has "$out" "written 2020-01-02 03:04:05" "the report"
    has "$out" "more   2           none" "the report"
    has "$out" "many   unreadable  3000" "the report"
    equal "$(tail -n 1 out)" "m.db: restored from m.db.sqlite, and sound" "the last line"
    equal "$(sqlite3 m.db 'SELECT count(*) FROM many')" 3000 "the restored rows"
    equal "$(sqlite3 m.db 'PRAGMA integrity_check')" ok "the restored database"
    equal "$(stat -c '%u %g %a' m.db)" "$rights" "owner and rights of the restored database"
    equal "$(ls m.db*)" $'m.db\nm.db.sqlite' "the files"
    # The second side file.
    cp m.db.sqlite m.db.sqlite.bak
    damage m.db 40 3
    ctl restore m.db --stage second
    equal "$(tail -n 1 out)" "m.db: restored from m.db.sqlite.bak, and sound" "the last line of the second stage"
    # A database that is gone.
    rm m.db
    ctl restore m.db
    equal "$code" 0 "the exit code for a missing database: $err"
    equal "$(sqlite3 m.db 'SELECT count(*) FROM many')" 3000 "the rows of a missing database"
    # Something that is no database any more.
    echo "rubbish" > m.db
    ctl restore m.db
    equal "$code" 0 "the exit code for rubbish: $err"
    has "$out" "is no database" "the report of rubbish"
    # With a write-ahead log of a killed process beside it, which must not come back.
    sqlite3 m.db 'PRAGMA journal_mode=wal' > held
    mkdir killed
    cp m.db killed/m.db
    hold "$work/killed/m.db" "PRAGMA wal_autocheckpoint=0; UPDATE many SET text = 'spoilt';"
    cp killed/m.db* "$work/"
    release
    ctl restore m.db --force
    equal "$code" 0 "the exit code with a left log: $err"
    equal "$(sqlite3 m.db "SELECT count(*) FROM many WHERE text = 'spoilt'")" 0 "rows of the left log"
    equal "$(sqlite3 m.db 'PRAGMA integrity_check')" ok "the database with a left log"
}

case_restore_refuses() {
    cd "$work" || exit 1
    many m.db 3000
    ctl backup m.db
    touch -d 2020-01-02T03:04:05Z m.db.sqlite
    sqlite3 m.db "INSERT INTO many VALUES (9999, 'new')"
    local before
    before=$(state . "m.db*")
    ctl restore m.db
    equal "$code" 1 "the exit code for a sound database"
    has "$err" "vantryctl: not restored: m.db is sound, and what was written to it after 2020-01-02 03:04:05 would be lost (--force" \
        "standard error for a sound database"
    has "$out" "many       3001              3000" "the rows that would be lost"
    equal "$(state . "m.db*")" "$before" "the files of a refused restore"
    ctl restore m.db --force --dry-run
    equal "$code" 0 "the exit code of a dry run"
    equal "$(tail -n 1 out)" "It would be restored; --dry-run changes nothing." "the last line of a dry run"
    equal "$(state . "m.db*")" "$before" "the files of a dry run"
    # A database that a program has open.
    cp m.db c.db
    cp m.db.sqlite c.db.sqlite
    hold "$work/c.db" "SELECT count(*) FROM many;"
    damage c.db 40 3
    ctl restore c.db
    equal "$code" 1 "the exit code for an open database"
    has "$err" "not restored: sqlite3 (process ${holders[-1]}) has the database open" "standard error for an open database"
    release
    ctl restore m.db --force
    equal "$code" 0 "the exit code with force"
    equal "$(sqlite3 m.db 'SELECT count(*) FROM many')" 3000 "the rows with force"
    # A side file that is not sound.
    damage m.db.sqlite 40 3
    damage m.db 50 3
    before=$(state . "m.db*")
    ctl restore m.db
    equal "$code" 1 "the exit code for an unsound side file"
    has "$err" "not restored: the side file is not sound" "standard error for an unsound side file"
    has "$out" "m.db.sqlite is corrupted" "the report of an unsound side file"
    equal "$(state . "m.db*")" "$before" "the files"
    ctl restore m.db --force
    equal "$code" 1 "the exit code of a forced restore from an unsound side file"
    has "$out" "m.db: restored from m.db.sqlite" "the last line of a forced restore"
    lacks "$(tail -n 1 out)" "sound" "the last line of a forced restore"
    # Without anything to restore from, no force helps.
    rm m.db.sqlite
    before=$(state . "m.db*")
    expect 1 "cannot open m.db.sqlite: no such file" restore m.db --force
    : > m.db.sqlite
    expect 1 "m.db.sqlite is empty" restore m.db --force
    rm m.db.sqlite
    equal "$(state . "m.db*")" "$before" "the files"
    # A restore that fails leaves the database as it was: the side file goes on being written by another program.
    many n.db 3000
    ctl backup n.db
    damage n.db 40 3
    before=$(sha256sum n.db)
    hold "$work/n.db.sqlite" "BEGIN IMMEDIATE; SELECT 1;"
    ctl restore n.db
    local first=$code
    release
    [[ $first == 0 ]] || equal "$(sha256sum n.db)" "$before" "the database after a failed restore"
    equal "$(find . -name '*before-restore*')" "" "what a restore leaves behind"
}
