# Run at install time (deploy/package.cmake): writes the files that name the install prefix or
# the version, then installs them and the man pages, compressed as Debian keeps them.
# TESSEL_SOURCE_DIR and TESSEL_STAGE_DIR are set before this runs.
include(${TESSEL_SOURCE_DIR}/deploy/version.cmake)
set(src ${TESSEL_SOURCE_DIR})
set(stage ${TESSEL_STAGE_DIR})
file(REMOVE_RECURSE ${stage})
file(MAKE_DIRECTORY ${stage}/man)

# gzip -9n: no name or time in the header, so the same text gives the same bytes.
function(tessel_gzip input output)
  execute_process(COMMAND gzip -9nc ${input} OUTPUT_FILE ${output} RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "gzip ${input} failed")
  endif()
endfunction()

# The Apache configuration names the program where this install puts it.
set(TESSEL_LIB_DIR ${CMAKE_INSTALL_PREFIX}/lib/tessel)
set(TESSEL_PROGRAM ${TESSEL_LIB_DIR}/tessel)
configure_file(${src}/deploy/tessel.conf.in ${stage}/tessel.conf @ONLY)

file(GLOB pages ${src}/docs/man/*.[18])
foreach(page ${pages})
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\." "" section ${name})
  tessel_gzip(${page} ${stage}/man/${name}.gz)
  file(INSTALL ${stage}/man/${name}.gz DESTINATION ${CMAKE_INSTALL_PREFIX}/share/man/man${section})
endforeach()

set(doc ${CMAKE_INSTALL_PREFIX}/share/doc/tessel)
file(INSTALL ${src}/deploy/copyright DESTINATION ${doc})
file(INSTALL ${src}/deploy/lintian-overrides DESTINATION ${CMAKE_INSTALL_PREFIX}/share/lintian/overrides
     RENAME tessel)
tessel_version(${src} version commit date)
if(commit STREQUAL "")
  set(built "a source without its git history.")
else()
  set(built "commit ${commit}; the source's git history lists the changes.")
endif()
file(WRITE ${stage}/changelog.Debian "tessel (${version}-1) unstable; urgency=medium

  * Built from ${built}

 -- tessel maintainers <tessel@localhost>  ${date}
")
tessel_gzip(${stage}/changelog.Debian ${stage}/changelog.Debian.gz)
file(INSTALL ${stage}/changelog.Debian.gz DESTINATION ${doc})

# A package (prefix /usr) also puts its configuration in /etc: Apache's (the CGI program's
# and the resident workers'), the log rotation and the daily expiry of the page cache for the
# state folders under /var/lib/tessel, which README.Debian describes, and the workers' systemd
# units in /lib/systemd/system. Any other prefix keeps the Apache configuration and the units
# beside its files, to be copied by hand.
set(units ${src}/deploy/tessel-fastcgi.socket ${src}/deploy/tessel-fastcgi.service)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(INSTALL ${src}/deploy/README.Debian DESTINATION ${doc})
  file(INSTALL ${stage}/tessel.conf ${src}/deploy/tessel-fastcgi.conf
       DESTINATION /etc/apache2/conf-available)
  file(INSTALL ${units} DESTINATION /lib/systemd/system)
  file(INSTALL ${src}/deploy/logrotate DESTINATION /etc/logrotate.d RENAME tessel)
  file(INSTALL ${src}/deploy/cron.daily DESTINATION /etc/cron.daily RENAME tessel
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                        WORLD_READ WORLD_EXECUTE)
else()
  file(INSTALL ${stage}/tessel.conf ${src}/deploy/tessel-fastcgi.conf ${units}
       DESTINATION ${CMAKE_INSTALL_PREFIX}/share/tessel)
endif()
# lighttpd's and nginx's configurations, which name the program (or the workers' socket) where
# the package puts it, to be enabled by hand (README).
file(INSTALL ${src}/deploy/lighttpd.conf ${src}/deploy/nginx.conf ${src}/deploy/nginx-fastcgi.conf
     DESTINATION ${CMAKE_INSTALL_PREFIX}/share/tessel)
