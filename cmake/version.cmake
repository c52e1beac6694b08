# The version is written once, in project(); the code reads it from this
# header, which is rewritten only when the version changes.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/kv_version.h
     CONTENT "#pragma once\n#define KV_VERSION \"@PROJECT_VERSION@\"\n" @ONLY)
