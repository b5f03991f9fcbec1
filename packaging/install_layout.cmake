# Runs at install time (cmake --install, cpack), after the binary is in place: installs
# the systemd units and makes the agent's private configuration directories.
#
# Both depend on the prefix of this install, which is only known now (cmake --install
# --prefix, or CPack's /usr): the units name the installed binary and helper, and the
# configuration directory goes where the agent will look for it. DESTDIR is honoured.
#
# Set by the build before this script runs:
#   ORV_PACKAGING_SOURCE   packaging/ of the source tree
#   ORV_PACKAGING_STAGE    a directory of the build tree for the generated units
#   ORV_INSTALL_SBINDIR, ORV_INSTALL_LIBEXECDIR, ORV_SYSTEMD_UNIT_DIR (relative to the prefix)

string(REGEX REPLACE "/+$" "" orv_prefix "${CMAKE_INSTALL_PREFIX}")
set(orv_destdir "$ENV{DESTDIR}")

# The agent's configuration directory is compiled in as /etc/zelko/orv. An install into
# the system (/usr, /usr/local or /) makes that directory; any other prefix is a staging
# tree and gets it under <prefix>/etc, never the host's /etc.
if(orv_prefix STREQUAL "" OR orv_prefix STREQUAL "/usr" OR orv_prefix STREQUAL "/usr/local")
  set(orv_etc "/etc")
else()
  set(orv_etc "${orv_prefix}/etc")
endif()

# The units ship with the production paths; an install elsewhere names its own.
set(orv_sbin "${orv_prefix}/${ORV_INSTALL_SBINDIR}")
set(orv_libexec "${orv_prefix}/${ORV_INSTALL_LIBEXECDIR}")
if(IS_ABSOLUTE "${ORV_SYSTEMD_UNIT_DIR}")
  set(orv_unit_dir "${ORV_SYSTEMD_UNIT_DIR}")
else()
  set(orv_unit_dir "${orv_prefix}/${ORV_SYSTEMD_UNIT_DIR}")
endif()
file(MAKE_DIRECTORY "${ORV_PACKAGING_STAGE}")
set(orv_units "")
foreach(unit orvd.service orvd-reload-trackers.service)
  file(READ "${ORV_PACKAGING_SOURCE}/${unit}" text)
  string(REPLACE "/usr/sbin/orvd" "${orv_sbin}/orvd" text "${text}")
  string(REPLACE "/usr/libexec/orvd/" "${orv_libexec}/orvd/" text "${text}")
  file(WRITE "${ORV_PACKAGING_STAGE}/${unit}" "${text}")
  list(APPEND orv_units "${ORV_PACKAGING_STAGE}/${unit}")
endforeach()
# file(INSTALL) puts DESTDIR in front itself and records the files in the manifest.
file(INSTALL DESTINATION "${orv_unit_dir}" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES ${orv_units})

# Database, private key and the administrator's root-run scripts: root only. The modes
# are set also on directories that exist already.
set(orv_conf "${orv_destdir}${orv_etc}/zelko/orv")
foreach(dir "${orv_conf}" "${orv_conf}/certs" "${orv_conf}/pps")
  message(STATUS "Installing: ${dir} (mode 0700)")
  file(MAKE_DIRECTORY "${dir}")
  file(CHMOD "${dir}" DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endforeach()
