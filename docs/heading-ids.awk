# Filter for Doxygen, which gives a heading of a Markdown file no anchor by its text: says the anchors that web
# front ends of git make, with the file's name before them, since they share one namespace here.
function anchor(text) {
    text = tolower(text)
    gsub(/[^a-z0-9 _-]/, "", text)
    gsub(/ /, "-", text)
    return text
}
function base(path) {
    sub(/.*\//, "", path)
    sub(/\.md$/, "", path)
    return tolower(path)
}
/^```/ { code = !code }
code { print; next }
/^##+ / {
    text = $0
    sub(/^#+ /, "", text)
    print $0 " {#" base(FILENAME) "-" anchor(text) "}"
    next
}
{
    gsub(/\]\(#/, "](#" base(FILENAME) "-")
    while (match($0, /\]\([A-Za-z\/._-]+\.md#/)) {
        file = substr($0, RSTART + 2, RLENGTH - 3)
        $0 = substr($0, 1, RSTART + 1) "#" base(file) "-" substr($0, RSTART + RLENGTH)
    }
    print
}
