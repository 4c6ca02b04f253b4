# Sourced by vantryctl_test.sh: the results that wait in shared memory. Every name holds this test's key.

case_shm() {
    cd "$work" || exit 1
    films f.db
    store f.db films "$key"
    equal "$name" "/.vantry_${key}1" "the name"
    local before
    before=$(stat -c '%n %s %Y %Z %i' "/dev/shm$name"; sha256sum "/dev/shm$name")
    ctl shm list --key "$key" --format csv
    equal "$code" 0 "the exit code of the list"
    equal "$(head -n 1 out)" "name,size,age,owner,columns,rows,state,id,key,process,note" "the columns of the list"
    has "$(sed "s/,$size,[0-9]*,/,$size,AGE,/" out)" "$name,$size,AGE,$(id -un),5,5,waiting,1,$key,," "the list"
    ctl shm list --key "$key" --format json
    equal "$(sqlite3 :memory: "SELECT json_valid(readfile('out'))")" 1 "the validity of JSON"
    on_terminal "'$VANTRYCTL' shm list --key $key"
    equal "$(plain "$out" | tail -n 1)" "1 stored result" "the last line on a terminal"
    ctl shm show "$name" --format csv
    equal "$code" 0 "the exit code of show: $err"
    equal "$(head -n 3 out)" "_id,title,year,rating,poster
1,\"The General\",1926,8.5,X'00ff27'
2,Häxan,1922,," "the rows"
    has "$(sed 's/[0-9]* s ago/AGE ago/' err)" "5 rows, stored AGE ago; still waiting" "what follows the rows"
    ctl shm show "${name#/}" --format csv
    equal "$code" 0 "the exit code of a name without slash"
    equal "$(stat -c '%n %s %Y %Z %i' "/dev/shm$name"; sha256sum "/dev/shm$name")" "$before" "the object after it was looked at"
    equal "$(DLOG_LEVEL=silent "$STORED" fetch "$name" "$size")" 5 "the rows that its consumer finds"
    expect 1 "there is no stored result $name: it was never stored, or has been fetched" shm show "$name"
    ctl shm list --key "$key"
    equal "$out" "No stored result is waiting on this machine." "the empty list"
    equal "$code" 0 "the exit code of the empty list"
    ctl shm list --key "$key" --format json
    equal "$out" "[]" "the empty list as JSON"
    # A result without rows has no names, and is whole.
    sqlite3 f.db "CREATE TABLE none (a, b)"
    store f.db none "${key}none"
    ctl shm list --key "${key}none" --format csv
    has "$out" ",2,0,waiting,1,${key}none,," "an empty result"
    ctl shm show "$name"
    has "$err" "0 rows" "an empty result"
    equal "$code" 0 "the exit code of an empty result: $err"
    # A process that lives is waited for.
    store f.db films "${key}p$$-"
    ctl shm list --key "${key}p" --format csv
    has "$out" ",waiting,1,${key}p$$-,$$," "the result of a living process"
}

# object BYTES: an object with these bytes, as printf writes them.
object() { printf "%b" "$1" > "/dev/shm/.vantry_${key}x1"; }
# shows CODE SENTENCE
shows() {
    ctl shm show "/.vantry_${key}x1" --format csv
    equal "$code" "$1" "the exit code of $2"
    has "$err" "$2" "standard error of show"
    equal "$(grep -c '^vantryctl: ' "$work/err")" 1 "the number of complaints: $err"
    ctl shm list --key "${key}x" --format csv
    equal "$code" 0 "the exit code of the list of $2"
    has "$out" "$2" "the list"
    ctl shm list --key "${key}x"
    equal "$code" 0 "the exit code of the table of $2"
    ctl shm purge --key "${key}x" --older-than 0s
    equal "$code" 0 "the exit code of a dry purge of $2"
}

case_shm_hostile() {
    cd "$work" || exit 1
    local at=/dev/shm/.vantry_${key}x1 i bytes
    object ''
    shows 1 "it is empty"
    object '\001\002'
    shows 1 "it is too short for a length word"
    object '\377\377\377\377aaaaaaaaaaaa'
    shows 1 "its length word is negative"
    object '\004\0\0\0\001\0\0\0'
    shows 1 "it ends before its counts do"
    object '\010\0\0\0\377\377\377\377\001\0\0\0'
    shows 1 "its counts are negative"
    object '\010\0\0\0\377\377\377\177\377\377\377\177'
    shows 1 "it says 2 147 483 647 columns, and the names of 0 are there"
    object '\020\0\0\0\001\0\0\0\377\377\377\177\002\0\0\0a\0\0\0'
    shows 1 "it says 2 147 483 647 rows, and 0 are whole"
    object '\016\0\0\0\001\0\0\0\005\0\0\0\002\0\0\0a\0'
    shows 1 "it says 5 rows, and 0 are there"
    object '\016\0\0\0\001\0\0\0\0\0\0\0\002\0\0\0a\0'
    shows 1 "it was stored before its end was reached"
    object '\016\0\0\0\001\0\0\0\001\0\0\0\377\377\377\177a\0'
    shows 1 "the names of 0 are there"
    object '\026\0\0\0\001\0\0\0\001\0\0\0\002\0\0\0a\0\003\0\0\0\377\377\377\177'
    shows 1 "it says 1 row, and 0 are whole"
    object '\377\377\0\0\001\0\0\0\001\0\0\0\002\0\0\0a\0\005\0\0\0\0\0\0\0'
    shows 1 "its length word says 63 KiB, and 22 bytes follow"
    # The results that the fuzzer has collected, and a real one cut at every length.
    for i in "$VANTRY_SOURCE"/fuzz/corpus/wire_format/*; do
        cp "$i" "$at"
        ctl shm show "/.vantry_${key}x1" --format json
        ctl shm list --key "${key}x"
        equal "$code" 0 "the exit code of the list of $(basename "$i")"
    done
    films f.db
    store f.db films "${key}real"
    bytes=$(stat -c %s "/dev/shm$name")
    for ((i = 0; i < bytes; i += 7)); do
        head -c "$i" "/dev/shm$name" > "$at"
        ctl shm show "/.vantry_${key}x1" --format csv
        equal "$code" 1 "the exit code of a result cut at $i"
    done
    for ((i = 0; i < 20; ++i)); do
        head -c $((i * 97)) /dev/urandom > "$at"
        ctl shm list --key "${key}x" --format lines
        ctl shm show "/.vantry_${key}x1"
        # One in four thousand million is a result.
        equal "$code" 1 "the exit code of random bytes"
    done
    # Larger than any result.
    rm "$at"
    truncate -s 1G "$at"
    shows 1 "it ends before its counts do"
    rm "$at"
    # No files at all.
    ln -s /etc/passwd "$at"
    shows 1 "it is a symbolic link and no stored result"
    ctl shm purge --key "${key}x" --older-than 0s --yes
    [ -L "$at" ] || fail "the link was removed"
    rm "$at"
    mkdir "$at"
    shows 1 "it is a directory and no stored result"
    rmdir "$at"
    mkfifo "$at"
    shows 1 "it is a pipe and no stored result"
    rm "$at"
    # Names that are no key and no id.
    printf 'x' > "/dev/shm/.vantry_${key}"$'\x1b[31m\n99999999999999999999999'
    ctl shm list --key "$key"
    lacks "$out$err" $'\x1b' "the list with a hostile name"
    ctl shm list --key "$key" --format lines
    lacks "$out$err" $'\x1b' "the lines of a hostile name"
    if [ "$(id -u)" -eq 0 ] && setpriv --reuid=65534 --regid=65534 --clear-groups "$VANTRYCTL" --version > /dev/null 2>&1; then
        object 'x'
        chmod 600 "$at"
        setpriv --reuid=65534 --regid=65534 --clear-groups "$VANTRYCTL" shm list --key "${key}x" --format csv > out 2> err
        equal "$?" 0 "the exit code of another user's result"
        has "$(cat out)" ",,,unreadable,1," "another user's result"
        setpriv --reuid=65534 --regid=65534 --clear-groups "$VANTRYCTL" shm show "/.vantry_${key}x1" > out 2> err
        equal "$?" 1 "the exit code of showing another user's result"
        equal "$(cat err)" "vantryctl: cannot show /.vantry_${key}x1: it belongs to root, who alone may read it" "the sentence"
        setpriv --reuid=65534 --regid=65534 --clear-groups "$VANTRYCTL" shm purge --key "${key}x" --older-than 0s --yes > out 2> err
        [ -e "$at" ] || fail "another user's result was removed"
    fi
}

case_shm_purge() {
    cd "$work" || exit 1
    films f.db
    local old alive gone
    # No process has a number beyond the kernel's greatest.
    store f.db films "${key}pa4999999-" && gone=$name
    store f.db films "${key}pb$$-" && alive=$name
    store f.db films "${key}old" && old=$name
    touch -d '2 hours ago' "/dev/shm$old"
    ctl shm purge --key "${key}p"
    equal "$code" 0 "the exit code of a dry run"
    equal "$(grep -c 'would remove' out)" 1 "the number that would be removed"
    has "$out" "would remove  $gone" "the dry run"
    has "$out" "process 4999999 is gone" "the dry run"
    has "$out" "1 stored result would be removed; --yes does it." "the dry run"
    [ -e "/dev/shm$gone" ] || fail "a dry run removed something"
    ctl shm purge --key "${key}o" --older-than 3h
    equal "$out" "Nothing is to be removed." "what is older than three hours"
    ctl shm purge --key "${key}o" --older-than 90min
    has "$out" "would remove  $old" "what is older than ninety minutes"
    # What is being fetched stays.
    exec 8< "/dev/shm$gone"
    flock 8
    ctl shm purge --key "${key}p" --yes
    equal "$code" 1 "the exit code while it is fetched"
    has "$err" "vantryctl: cannot remove $gone: it is being fetched" "standard error while it is fetched"
    exec 8<&-
    ctl shm purge --key "${key}p" --yes
    equal "$code" 0 "the exit code"
    has "$out" "removed       $gone" "what was removed"
    [ ! -e "/dev/shm$gone" ] || fail "$gone was not removed"
    [ -e "/dev/shm$alive" ] || fail "$alive was removed"
    ctl shm purge --key "$key" --older-than 1h --yes
    [ ! -e "/dev/shm$old" ] || fail "$old was not removed"
    [ -e "/dev/shm$alive" ] || fail "$alive was removed"
    # A number that another process has got since.
    touch -d '2001-01-01' "/dev/shm$alive"
    ctl shm purge --key "${key}pb"
    has "$out" "process $$ is gone" "a process number that was given again"
}
