# cmake -D SOURCE=FILE.md -D RESULT=FILE.md -P installed_links.cmake: a document as it is installed.
# Links to documents that are installed beside it stay; of the others only the text stays.
set(installed README.md SECURITY.md administrators.md file-format.md registry.md roads.svg)

file(READ ${SOURCE} text)
foreach(document IN LISTS installed)
  string(REGEX REPLACE "\\]\\(((\\.\\./|docs/)?${document}[^)]*)\\)" "]<kept>(\\1)" text "${text}")
endforeach()
string(REGEX REPLACE "\\]\\((#|https?:)" "]<kept>(\\1" text "${text}")
string(REGEX REPLACE "\\[([^]]*)\\]\\([^)]*\\)" "\\1" text "${text}")
string(REPLACE "]<kept>(" "](" text "${text}")
file(WRITE ${RESULT} "${text}")
