# Doxygen copies example code into man pages without escaping its backslashes, so troff
# would read "\n" in a printf string as an escape. Inside code blocks, every backslash but
# Doxygen's own (\& and the font changes) is written as troff's printable backslash.
/^\.nf$/,/^\.fi$/ {
  s/\\&/\x01/g
  s/\\f\([BIPRC]\)/\x02\1/g
  s/\\/\\e/g
  s/\x01/\\\&/g
  s/\x02/\\f/g
}
