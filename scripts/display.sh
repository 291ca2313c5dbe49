# A display for the machine's windows: the one that is there, otherwise a virtual one that ends with the script.
# Sourced before the machine is made.
#
#   display_need       makes one if there is none
#   display_shot WINDOW FILE  saves a picture of a window
#   display_find TITLE [TENTHS]  prints the window with a title, for which it waits up to so many tenths of a second
#   display_press WINDOW KEY     presses a key in a window until the window is gone

display_server=

display_need() {
    [ -n "${DISPLAY:-}" ] && xdotool getdisplaygeometry >/dev/null 2>&1 && return
    local number
    number=$(mktemp)
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$number" >/dev/null 2>&1 &
    display_server=$!
    disown "$display_server"
    for _ in $(seq 100); do
        [ -s "$number" ] && break
        sleep 0.1
    done
    [ -s "$number" ] || { echo "display: no virtual display can be had" >&2; return 1; }
    DISPLAY=:$(cat "$number")
    export DISPLAY
    rm -f "$number"
}

display_shot() { import -window "$1" "$2"; }

display_find() {
    local i
    for ((i = 0; i <= ${2:-0}; ++i)); do
        xdotool search --onlyvisible --name "^$1\$" 2>/dev/null && return
        sleep 0.1
    done
    return 1
}

display_press() {
    local title
    title=$(xdotool getwindowname "$1")
    for _ in $(seq 10); do
        xdotool windowfocus --sync "$1" 2>/dev/null || true
        sleep 0.5 # a key that comes at once is lost
        [ "$(xdotool getwindowfocus 2>/dev/null)" != "$1" ] || xdotool key "$2"
        sleep 0.2
        display_find "$title" >/dev/null || return 0
    done
    return 1
}

display_end() {
    [ -z "$display_server" ] || kill "$display_server" 2>/dev/null || true
    display_server=
}
