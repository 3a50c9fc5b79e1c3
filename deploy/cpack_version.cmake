# Read by cpack before it packages: the version of the source as it is now, not as it was when
# the build was configured.
include(${CPACK_TESSEL_SOURCE_DIR}/deploy/version.cmake)
tessel_version(${CPACK_TESSEL_SOURCE_DIR} CPACK_PACKAGE_VERSION commit date)
