# The program's version and the date of its release, from the last entry of the packages' changelog.
file(STRINGS debian/changelog entry REGEX "^(qm5-updater | -- )" LIMIT_COUNT 2)
set(months Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec)
if(NOT entry MATCHES "^qm5-updater \\(([0-9.]+)\\).*, ([0-9][0-9]) ([A-Z][a-z][a-z]) ([0-9]+) [0-9:]+ [+-][0-9]+$")
  message(FATAL_ERROR "The last entry of debian/changelog has no version or no date")
endif()
set(QM5_RELEASE ${CMAKE_MATCH_1})
list(FIND months ${CMAKE_MATCH_3} month)
math(EXPR month "${month} + 101") # with a digit before it that keeps a leading zero
string(SUBSTRING ${month} 1 2 month)
set(QM5_RELEASE_DATE ${CMAKE_MATCH_4}-${month}-${CMAKE_MATCH_2})
