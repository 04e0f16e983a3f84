# Peer libraries of the benchmarks, linked per benchmark executable.
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
target_link_libraries(base64_bench PRIVATE OpenSSL::Crypto)
# Message texts: the peer is the system's catgets on the catalogs of this build.
target_compile_definitions(msg_bench PRIVATE ZAR_BENCH_NLS_DIR="${ZAR_NLS_BUILD_DIR}")
# Formatted output: fmt's format_to_n runs beside glibc for reference.
find_package(fmt REQUIRED)
target_link_libraries(printf_bench PRIVATE fmt::fmt)
# UUIDs: libuuid's time-based generation and text form.
find_library(ZAR_PEER_UUID uuid REQUIRED)
target_link_libraries(uuid_bench PRIVATE ${ZAR_PEER_UUID})
# Serviceability records: spdlog's synchronous file sink is the peer; the
# catalogs of this build serve the catalog case of the instruction count.
find_package(spdlog REQUIRED)
target_link_libraries(svc_bench PRIVATE spdlog::spdlog)
target_compile_definitions(svc_bench PRIVATE ZAR_BENCH_NLS_DIR="${ZAR_NLS_BUILD_DIR}")
# inih's ini_parse for the stanza-file walk.
find_package(PkgConfig REQUIRED)
pkg_check_modules(INIH REQUIRED IMPORTED_TARGET inih)
target_link_libraries(stanza_bench PRIVATE PkgConfig::INIH)
# Collectors: glibc syslog(3) and spdlog's syslog sink for SYSLOG records,
# libsystemd's sd_journal_send for JOURNAL records.
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
target_link_libraries(collect_bench PRIVATE PkgConfig::SYSTEMD spdlog::spdlog)
