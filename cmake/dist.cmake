# `cmake --build BUILD --target dist` makes the source archive the packages
# are built from: sealkeep-VERSION.tar.gz in the build directory, holding the
# tracked files of the checkout as they are now (uncommitted edits included).
set(SEALKEEP_DIST_NAME ${PROJECT_NAME}-${PROJECT_VERSION})
set(SEALKEEP_DIST_ARCHIVE ${PROJECT_BINARY_DIR}/${SEALKEEP_DIST_NAME}.tar.gz)
add_custom_target(dist
  COMMAND sh ${PROJECT_SOURCE_DIR}/packaging/dist.sh
    ${PROJECT_SOURCE_DIR} ${SEALKEEP_DIST_NAME} ${SEALKEEP_DIST_ARCHIVE}
  COMMENT "Making ${SEALKEEP_DIST_NAME}.tar.gz"
  VERBATIM)
