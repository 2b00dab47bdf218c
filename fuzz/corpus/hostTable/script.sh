p="a b.xyls"
c='stop' # a comment
q=$p"${c}"; solve-field -C "$c" -p -t\ 3 "$p" 'it'"'"'s' ${none} "C:\\x\"y" \
next=1
wcsinfo $q
