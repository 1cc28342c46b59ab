# Turns the header's plain comments into what Doxygen reads. Comments stay readable where they stand.
#   /* alone on a line        a contract: what starts at its first column gives parameters and paragraphs
#   /* text */ alone          the line below it; after a declaration, the declaration before it

# "open": in a parameter or list item, which a line at the first column ends.

function escape(text)
{
    gsub(/[\\@#%<>]/, "\\\\&", text)
    return text
}

/^\/\*$/ {
    print first++ ? "/**" : "/** @file"
    inside = 1
    open = 0
    next
}
inside && /^ \*\/$/ {
    inside = 0
    print
    next
}
inside {
    text = escape(substr($0, 4))
    if (text ~ /^(p|ph|pn|ppp|n|sz|h)[A-Z][A-Za-z]*(, [a-zA-Z]+)*: /) {
        names = substr(text, 1, index(text, ":") - 1)
        rest = substr(text, index(text, ":") + 1)
        gsub(/ /, "", names)
        text = "@param " names rest
        open = 1
    } else if (text ~ /^(Codes?|Threads|Pairing|Returns)[ .:,]/) {
        print " *"
        open = 0
    } else if (text ~ /^ +(AVFILTER_ERROR_[A-Z_]+|audio filter|audio mix|video filter|video mix|video scaling) /) {
        sub(/^ +/, "- ", text)
        sub(/  +/, ": ", text)
        open = 1
    } else if (text ~ /^   +/) {
        sub(/^ +/, "  ", text)
    } else if (open && text !~ /^ / && text != "") {
        print " *"
        open = 0
    }
    print " * " text
    next
}
/^ *\/\* [^-].*\*\/$/ { sub(/\/\*/, "/**") }
/^ *[^ \/*].*;.*\/\* .*\*\/$/ { sub(/\/\*/, "/**<") }
{ print }
