# Turns the headers' comments into doxygen's: a block above a declaration into ///, one behind a member into ///<. A
# block stands for all declarations that follow it without an empty line, so it is repeated for each.
/^ *\/\/( |$)/ {
    if (!inBlock) block = ""
    inBlock = 1
    sub(/\/\//, "///")
    block = block $0 "\n"
    print
    next
}
{
    inBlock = 0
    if ($0 ~ /^ *$/) block = ""
    else if (ended && block != "" && $0 ~ /^    [^ }].*[(;]/ && $0 !~ /\/\/ /) printf "%s", block
    if ($0 !~ /^ *$/) ended = $0 ~ /; *$/
    if ($0 ~ /[;,{] +\/\/ /) { sub(/ \/\/ /, " ///< "); block = "" }
    print
}
