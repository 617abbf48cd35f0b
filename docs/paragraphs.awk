# Filters a header for Doxygen, which takes a comment for the one declaration after it. In our headers
# a comment covers the paragraph of declarations under it, and that of a group every member: here each
# further declaration gets the comment's text, up to its first command. What the compiler generates
# needs no words. Lines keep their numbers.

function starts_declaration() {
    return covered && text != "" && !open && !in_body
}

/^ *\/\/\// {
    line = $0
    sub(/^ *\/\/\/ ?/, "", line)
    if (line ~ /^@}/) {
        in_group = covered = 0
    } else if (line ~ /^@{/) {
        in_group = covered = 1
        in_comment = open = 0
    } else {
        if (!in_comment) {
            text = ""
            before_commands = 1
        }
        in_comment = 1
        if (line ~ /^@/ && line !~ /^@name/)
            before_commands = 0
        if (before_commands && line !~ /^@name/)
            text = text " " line
    }
    print
    next
}

/^ *$/ || (/^ *#/ && !/^ *#define /) || /^ *(public|protected|private):/ {
    in_comment = open = in_body = 0
    covered = in_group
    print
    next
}

{
    if (in_comment) {
        in_comment = in_body = 0
        covered = 1
        print
    } else if (starts_declaration()) {
        print "/**" text " */ " $0
    } else if ($0 ~ /= default;$/) {
        print ""
    } else {
        print
    }
    code = $0
    sub(/ *\/\/.*/, "", code)
    open = code !~ /[;}]$/ && code !~ /^ *#/
    if (code ~ /{$/)
        in_body = 1
    else if (code ~ /^ *}/)
        in_body = 0
}
