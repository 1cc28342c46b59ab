# What Doxygen is to see of the C++ headers: of the details, the public part of the class that the filters and
# mixers share.

/^} \/\/ namespace (telvane::)?detail/ { inside = 0 }
!inside { print }
/^namespace (telvane::)?detail/ {
    inside = 1
    print "{" # its own line is not seen any more
}
inside && /^class Graph/ {
    print "/// What filters and mixers have in common."
    print "template <class Kind>"
    shared = 1
}
/^  (protected|private):/ { hidden = shared }
/^};/ {
    if (shared) print
    shared = hidden = 0
}
shared && !hidden && !/^ *using / { print }
