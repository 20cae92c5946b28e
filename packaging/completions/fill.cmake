# Writes OUTPUT from TEMPLATE: puts the names of the connection types (TYPE_ARMS) into the part that
# all shells share (SHARED), and that part into the template. cmake -D... -P fill.cmake
file(READ "${TYPE_ARMS}" CORVIK_TYPE_ARMS)
file(READ "${SHARED}" shared)
string(CONFIGURE "${shared}" CORVIK_DEVICE_TYPES @ONLY)
if(OUTPUT MATCHES "\\.fish$")
  # There it stands in single quotes, as a script for sh.
  string(REPLACE "\\" "\\\\" CORVIK_DEVICE_TYPES "${CORVIK_DEVICE_TYPES}")
  string(REPLACE "'" "\\'" CORVIK_DEVICE_TYPES "${CORVIK_DEVICE_TYPES}")
endif()
configure_file("${TEMPLATE}" "${OUTPUT}" @ONLY)
# An output that stays as it was keeps its time; the build must see that it is up to date.
file(TOUCH "${OUTPUT}")
