# Peer libraries of the benchmarks, linked per benchmark executable.
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
target_link_libraries(base64_bench PRIVATE OpenSSL::Crypto)
