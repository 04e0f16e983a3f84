# Message sources (messages/*.msg, gencat source format) become the compiled
# message tables and the XPG catalogs. Included by the top-level CMakeLists;
# appends the generated table sources to ZAR_GENERATED_SOURCES.
#
# The host tool zar_msggen (messages/msggen.cc) reads the sources and writes
# the tables into ${ZAR_GENERATED_DIR}/msgtables.cc and the catalogs, made
# with the system gencat, into ${ZAR_NLS_BUILD_DIR}/<locale>/ (C for English;
# per translated language "de", "de_DE.UTF-8" and "de_DE.ISO-8859-1"). The
# locales gencat needs for the legacy code sets are generated first into
# ${CMAKE_BINARY_DIR}/locale. The three product tables must have exactly the
# counts and code ranges below, or the build fails.
set(ZAR_NLS_BUILD_DIR ${CMAKE_BINARY_DIR}/nls/msg)
set(ZAR_MSG_TABLES
  zarsv_client_svc_g_table:114:0x38C52096:0x38C52FD4
  zarsv_deploy_svc_g_table:864:0x38C53096:0x38C53FD7
  zarsv_if_svc_g_table:100:0x38C58096:0x38C58FD3)

find_program(ZAR_GENCAT gencat REQUIRED)
add_executable(zar_msggen ${CMAKE_CURRENT_LIST_DIR}/msggen.cc)
# A build tool: no sanitizers, no library.
target_compile_options(zar_msggen PRIVATE -fno-sanitize=all)
target_link_options(zar_msggen PRIVATE -fno-sanitize=all)

file(GLOB ZAR_MSG_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.msg)
file(GLOB ZAR_MSG_TRANSLATIONS CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*/*.msg)
set(ZAR_MSGGEN_ARGS --cc ${ZAR_GENERATED_DIR}/msgtables.cc --catalogs ${ZAR_NLS_BUILD_DIR}
    --locpath ${CMAKE_BINARY_DIR}/locale --gencat ${ZAR_GENCAT})
foreach(t ${ZAR_MSG_TABLES})
  list(APPEND ZAR_MSGGEN_ARGS --table ${t})
endforeach()
foreach(f ${ZAR_MSG_TRANSLATIONS})
  get_filename_component(dir ${f} DIRECTORY)
  get_filename_component(lang ${dir} NAME)
  list(APPEND ZAR_MSGGEN_ARGS --translation ${lang} ${f})
endforeach()

file(MAKE_DIRECTORY ${ZAR_GENERATED_DIR} ${ZAR_NLS_BUILD_DIR})
add_custom_command(
  OUTPUT ${ZAR_GENERATED_DIR}/msgtables.cc ${ZAR_NLS_BUILD_DIR}/.stamp
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/mklocales ${CMAKE_BINARY_DIR}/locale
  COMMAND zar_msggen ${ZAR_MSGGEN_ARGS} ${ZAR_MSG_SOURCES}
  DEPENDS zar_msggen ${ZAR_MSG_SOURCES} ${ZAR_MSG_TRANSLATIONS}
          ${PROJECT_SOURCE_DIR}/scripts/mklocales
  COMMENT "Generating the message tables and catalogs"
  VERBATIM)
add_custom_target(zar_catalogs DEPENDS ${ZAR_NLS_BUILD_DIR}/.stamp)
list(APPEND ZAR_GENERATED_SOURCES ${ZAR_GENERATED_DIR}/msgtables.cc)

install(DIRECTORY ${ZAR_NLS_BUILD_DIR}/ DESTINATION ${CMAKE_INSTALL_DATADIR}/zar/nls/msg
        COMPONENT runtime PATTERN ".src" EXCLUDE PATTERN ".stamp" EXCLUDE)
