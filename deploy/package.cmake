# Installation and the Debian package (cpack -G DEB), included by the top CMakeLists.txt.
#
# The program goes in lib/tessel beside its SQL client module, outside the cgi-bin folder that
# Debian's Apache serves by URL: no request reaches it but through the macros of tessel.conf.
# The tools go in bin, the chat's password tool in sbin as tessel-chat-password, the man pages
# in share/man. deploy/install.cmake writes and installs what names the prefix or the version
# (tessel.conf, changelog.Debian.gz) and, for the /usr prefix, the files in /etc.
include(GNUInstallDirs)
install(TARGETS tessel DESTINATION lib/tessel)
install(TARGETS tessel-check tessel-render DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS scripts/chat_password.sh DESTINATION ${CMAKE_INSTALL_SBINDIR}
        RENAME tessel-chat-password)
install(CODE "set(TESSEL_SOURCE_DIR \"${CMAKE_SOURCE_DIR}\")
set(TESSEL_STAGE_DIR \"${CMAKE_BINARY_DIR}/install-stage\")")
install(SCRIPT deploy/install.cmake)

# The package installs under /usr whatever prefix the build was configured with: the program
# finds its SQL module beside itself, and install.cmake names the paths at install time. Its
# version is taken when cpack runs (deploy/cpack_version.cmake).
include(deploy/version.cmake)
tessel_version(${CMAKE_SOURCE_DIR} CPACK_PACKAGE_VERSION commit date)
set(CPACK_TESSEL_SOURCE_DIR ${CMAKE_SOURCE_DIR})
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/deploy/cpack_version.cmake)
set(CPACK_PACKAGE_NAME tessel)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGE_CONTACT "tessel maintainers <tessel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "template engine for web pages, run as a CGI program")
# The long description: lines of at most 80 columns, paragraphs parted by an empty line.
set(CPACK_PACKAGE_DESCRIPTION "\
tessel renders web pages written in a template language: a page is HTML
with operator calls (variables, conditions, loops, tables, SQL queries,
files, mail, uploads, a page cache, GIF images, a chat) that the engine
expands on each request. It runs as a CGI program.

With Apache, a virtual host turns its pages on with one line,
Use TesselSite /var/lib/tessel/SITE, once the package has enabled
tessel.conf. Each site keeps its logs, page cache and chat in a state
folder of its own.

It can also stay resident as FastCGI workers under systemd
(tessel-fastcgi.socket), which Apache's mod_proxy_fcgi or nginx hands
the pages to.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION web)
# A web server that runs CGI programs, not necessarily Apache; gd is loaded when a page first
# draws a picture, the SQL client (when the build has no module of its own) at its first query.
set(recommends "apache2 | lighttpd | nginx | httpd-cgi, libgd3")
if(NOT TARGET tessel-mysql)
  string(APPEND recommends ", libmariadb3")
endif()
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ${recommends})
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "fcgiwrap, logrotate, cron | cron-daemon")
# The libraries the tools and the SQL module link, when dpkg-shlibdeps (dpkg-dev) can say.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/deploy/postinst ${CMAKE_SOURCE_DIR}/deploy/prerm
    ${CMAKE_SOURCE_DIR}/deploy/postrm ${CMAKE_SOURCE_DIR}/deploy/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON) # the build keeps its symbols; the package does not
include(CPack)
