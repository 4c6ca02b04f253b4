# Sourced by vantryctl_test.sh: the home screen.

case_screen() {
    cd "$work" || exit 1
    tiles t.db
    ctl screen t.db --at 1250
    equal "$code" 0 "the exit code: $err"
    equal "$out" "▌ First & <foremost>
────────────────────────────────────────────────────────────────────────────────

  News  1 tile, title spoken only
  ╭──────────────────────╮
  │ Evening              │
  │ now                  │
  │ ━━━━━─────────────── │
  ╰──────────────────────╯

  Drama \"x\"  2 tiles
  ╭──────────────────────╮ ╭──────────────────────╮
  │ Ünïcödé 日本語 \\x1b… │ │ Tom & Jerry <3       │
  │                      │ │ a ]]> b              │
  ╰──────────────────────╯ ╰──────────────────────╯

▌ Later (off)
────────────────────────────────────────────────────────────────────────────────

  Kids  0 tiles, title shown when highlighted" "the screen"
    lacks "$out" $'\x1b' "a screen in a pipe"
    ctl screen t.db --at 5500
    has "$out" "To come" "the screen at another time"
    lacks "$out" "Evening" "the screen at another time"
    on_terminal "'$VANTRYCTL' screen t.db --at 1250"
    has "$out" $'\x1b[1;36m' "a screen on a terminal"
    on_terminal "stty cols 30; '$VANTRYCTL' screen t.db --at 1250"
    equal "$(plain "$out" | grep -c '^  ╭')" 2 "the sections on a narrow terminal"
    films f.db
    expect 1 "cannot read f.db: no such table: accelerators" screen f.db
    sqlite3 e.db "CREATE TABLE accelerators (title, position)"
    expect 1 "e.db holds no home screen: it has no accelerator" screen e.db
    expect 2 "--accelerator wants a number up to 2" screen t.db --accelerator 3
}

case_svg() {
    cd "$work" || exit 1
    tiles t.db
    ctl screen t.db --svg p.svg --at 1250
    equal "$code$out$err" 0 "the answer of a picture"
    has "$(head -n 1 p.svg)" 'viewBox="0 0 1920 1080"' "the picture"
    has "$(cat p.svg)" "Tom &amp; Jerry &lt;3" "the picture"
    has "$(cat p.svg)" "a ]]&gt; b" "the picture"
    has "$(cat p.svg)" "<title>News</title>" "the picture"
    lacks "$(cat p.svg)" $'\x1b' "the picture"
    equal "$(grep -c '>Drama &quot;x&quot;</text>' p.svg)" 1 "the titles that are seen"
    equal "$(grep -c '>News</text>' p.svg)" 0 "the titles that are only spoken"
    # A quarter of its time has passed, on a tile of sixteen by nine.
    has "$(cat p.svg)" 'width="112" height="5" fill="#e3bd7a"' "the progress"
    if command -v python3 > /dev/null; then
        python3 -c 'import xml.dom.minidom; xml.dom.minidom.parse("p.svg")' || fail "the picture is no XML"
    fi
    if command -v rsvg-convert > /dev/null; then
        rsvg-convert p.svg > /dev/null || fail "the picture cannot be drawn"
    fi
    "$VANTRYCTL" screen t.db --svg - --at 1250 | cmp - p.svg || fail "standard output has another picture"
    ctl screen t.db --svg q.svg --accelerator 2
    has "$(cat q.svg)" "No tiles" "the page without tiles"
    equal "$(ls)" $'err\nout\np.svg\nq.svg\nt.db' "the files"
    expect 1 "cannot write no/p.svg: no such directory" screen t.db --svg no/p.svg
    mkdir d
    expect 1 "cannot write d: it is a directory" screen t.db --svg d
    expect 1 "cannot write /dev/full: the disk is full" screen t.db --svg /dev/full
    [ -c /dev/full ] || fail "/dev/full was replaced"
}
