# Message sources (messages/*.msg, gencat source format) become the compiled
# message tables and the XPG catalogs. Included by the top-level CMakeLists;
# appends the generated table sources to ZAR_GENERATED_SOURCES.
