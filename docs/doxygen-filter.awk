# Shows the plain comments of the public headers to Doxygen; line numbers stay.
#
# A comment at the top of a file describes the file; one above a declaration describes it and the declarations
# that follow it without a blank line; one behind a declaration describes that declaration. Characters that mean
# something to Doxygen mean themselves.

function escaped(text) {
    gsub(/[\\@#<>&%]/, "\\\\&", text)
    return text
}

# line without its comment's last characters, escaped and ended.
function bodyOf(line) {
    ends = line ~ /\*\/ *$/
    sub(/ *\*\/ *$/, "", line)
    return escaped(line) (ends ? " */" : "")
}

function forget() {
    above = ""
    declared = 0
}

# Inside a block comment.
inComment {
    print bodyOf($0)
    text = $0
    sub(/ *\*\/.*/, "", text)
    sub(/^ *\*?/, "", text)
    if (isAbove) {
        above = above " " text
    }
    inComment = $0 !~ /\*\//
    next
}

# A comment on lines of its own.
/^ *\/\*/ || /^ *\/\// {
    match($0, /^ *\/[*\/]/)
    indent = substr($0, 1, RLENGTH - 2)
    text = substr($0, RLENGTH + 1)
    if (substr($0, RLENGTH, 1) == "*") {
        print indent (NR == 1 ? "/** @file" : "/**") bodyOf(text)
        inComment = $0 !~ /\*\//
    } else {
        print indent "///" escaped(text)
    }
    forget()
    isAbove = 1
    above = text
    sub(/ *\*\/.*/, "", above)
    next
}

/^ *$/ || /^#/ || /^ *(public|protected|private):/ {
    forget()
    print
    next
}

# Code: one comment may stand above several declarations, and one may stand behind it.
{
    code = $0
    comment = ""
    if (match(code, / \/[*\/]/)) {
        comment = substr(code, RSTART)
        code = substr(code, 1, RSTART - 1)
        text = substr(comment, 4)
        if (substr(comment, 3, 1) == "*") {
            comment = " /**<" bodyOf(text)
            inComment = $0 !~ /\*\//
            isAbove = 0
        } else {
            comment = " ///<" escaped(text)
        }
    }
    prefix = declared && above != "" && comment == "" ? "/** " escaped(above) " */ " : ""
    print prefix code comment
    if (code ~ /\{/ && code !~ /\}/) {
        forget()
    }
    declared = code ~ /;$/ || code ~ /\{.*\}$/
}
