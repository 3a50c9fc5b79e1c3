# The version of the source: 1.0.N, N the number of commits in its git history, so that a
# package built from a later commit upgrades one built from an earlier; 1.0.0 for a source
# that is no git checkout. Included at configure, install and package time, so each sees the
# source as it is then.
#
#   tessel_version(SOURCE_DIR VERSION_VAR COMMIT_VAR DATE_VAR)
#     VERSION_VAR  "1.0.N"
#     COMMIT_VAR   the abbreviated commit, or "" without git
#     DATE_VAR     the commit's date as RFC 2822 ("Thu, 26 Nov 2026 02:01:50 +0000"); without
#                  git, SOURCE_DATE_EPOCH's or the current time
function(tessel_version source version_var commit_var date_var)
  set(count 0)
  set(commit "")
  set(date "")
  find_program(TESSEL_GIT git)
  if(TESSEL_GIT AND EXISTS ${source}/.git)
    # safe.directory: a root build of a checkout that another user owns.
    execute_process(COMMAND ${TESSEL_GIT} -c safe.directory=* -C ${source}
                            log -1 --format=%h%n%cD
                    OUTPUT_VARIABLE head RESULT_VARIABLE failed ERROR_QUIET
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND ${TESSEL_GIT} -c safe.directory=* -C ${source} rev-list --count HEAD
                    OUTPUT_VARIABLE commits RESULT_VARIABLE failed_count ERROR_QUIET
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT failed AND NOT failed_count)
      string(REPLACE "\n" ";" head "${head}")
      list(GET head 0 commit)
      list(GET head 1 date)
      set(count ${commits})
    endif()
  endif()
  if(date STREQUAL "")
    string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  endif()
  set(${version_var} 1.0.${count} PARENT_SCOPE)
  set(${commit_var} "${commit}" PARENT_SCOPE)
  set(${date_var} "${date}" PARENT_SCOPE)
endfunction()
