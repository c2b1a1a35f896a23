# Tests that are scripts, in the e2e label:
#  - e2e.ApiSchema.LiveDaemon: in the emulated router, the objects, methods and argument types of the running
#    daemon (`ubus -v list`) are those of docs/api.schema.json, and the reply of a call of every method fits it;
#  - e2e.ApiSchema.Transcripts: every bus call in the cram transcripts (tests/unit/*.t, tests/e2e/*.t) names a
#    method of the schema and its reply fits it; first a sample with known faults must be caught;
#  - e2e.Packaging.ScriptsInRouter: the OpenWrt package's scripts and log level switch in the emulated router.
# The schema checks need Debian's python3-jsonschema, hence Debian's own interpreter.
set(GWCONF_PYTHON /usr/bin/python3 CACHE FILEPATH "Python interpreter with the jsonschema module")
set(gwconf_router ${CMAKE_SOURCE_DIR}/sandbox/router --build ${CMAKE_BINARY_DIR})

add_test(NAME e2e.ApiSchema.LiveDaemon
  COMMAND ${gwconf_router} -- ${GWCONF_PYTHON} ${CMAKE_SOURCE_DIR}/tests/api_schema.py --live)
add_test(NAME e2e.ApiSchema.Transcripts
  COMMAND bash -c "shopt -s nullglob; exec \"$0\" \"$1/tests/api_schema.py\" --self-test \"$1\"/tests/unit/*.t \"$1\"/tests/e2e/*.t"
    ${GWCONF_PYTHON} ${CMAKE_SOURCE_DIR})
add_test(NAME e2e.Packaging.ScriptsInRouter
  COMMAND ${gwconf_router} --bus-only -- ${CMAKE_SOURCE_DIR}/packaging/openwrt/check/in-router)
set_tests_properties(e2e.ApiSchema.LiveDaemon e2e.ApiSchema.Transcripts e2e.Packaging.ScriptsInRouter
  PROPERTIES LABELS e2e TIMEOUT 120)
