# The binary reports the commit of the source it was built from. The header
# is regenerated on every build and only touched when the commit changes.
set(KV_COMMIT_HEADER ${PROJECT_BINARY_DIR}/generated/kv_commit.h)
add_custom_target(kv_commit_header ALL
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
          -DOUTPUT=${KV_COMMIT_HEADER} -P ${PROJECT_SOURCE_DIR}/cmake/write_commit.cmake
  BYPRODUCTS ${KV_COMMIT_HEADER}
  COMMENT "Recording the source commit")
