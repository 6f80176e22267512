# Doxygen's input filter for the public header. The header has plain comments, to be read directly; here they become
# Doxygen's, line for line, so that a warning names the header's own line:
# - a comment before a declaration, or behind one on its line, documents it;
# - one comment before several declarations, with no blank line between them, documents them all;
# - the first comment is the front page;
# - a line of dashes with a title begins a group, that ends at the next one or with the last declaration.
{ lines[NR] = $0 }

END {
    lines[0] = lines[NR + 1] = ""
    for (i = 1; i <= NR; i++) {
        if (lines[i] == "") print blank(i)
        else print comment(lines[i])
    }
}

# declarations counts them in the lines from `at` on, up to the next blank one, in the direction `step`.
function declarations(at, step,    n) {
    for (; lines[at] != ""; at += step) n += lines[at] ~ /^CLOUDTUNNEL_EXPORT /
    return n
}

# blank is what becomes of blank line `at`: the end and the begin of declarations that share a comment.
function blank(at) {
    return (declarations(at - 1, -1) > 1 ? "/** @} */" : "") (declarations(at + 1, 1) > 1 ? "/** @{ */" : "")
}

function comment(line) {
    if (line ~ /^\/\* -+ /) return section(line)
    if (grouped && line ~ /^#ifdef __cplusplus/) return "/** @} */ " line
    if (line == "/*") return "/** @mainpage"
    if (line ~ /^#ifndef CLOUDTUNNEL_H/) return "/** @file cloudtunnel.h */ " line
    if (!sub(/[;,{)] +\/\*/, "&*<", line)) sub(/^ *\/\*/, "&*", line)
    return line
}

# section turns a title into the begin of a group, and ends the group before it.
function section(line,    title, name, end) {
    title = line
    sub(/^\/\* -+ /, "", title)
    end = sub(/ *\*\/$/, "", title) ? " */" : ""
    name = title
    gsub(/[^A-Za-z]+/, "_", name)
    line = (grouped ? "/** @} */ " : "") "/** @section_group{" name "," title "}" end
    grouped = 1
    return line
}
