# The paths of the installed files, derived from the directories of GNUInstallDirs. The unit, the
# init script, the manual pages and the doctor's defaults use these paths.

include(GNUInstallDirs)

set(VEYRA_CONFIGURATION_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/${PROJECT_NAME}.conf)

# Logs are below /var for every prefix, unless another directory is given.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LOCALSTATEDIR}")
  set(VEYRA_LOG_DIRECTORY ${CMAKE_INSTALL_LOCALSTATEDIR}/log/${PROJECT_NAME})
else()
  set(VEYRA_LOG_DIRECTORY /var/log/${PROJECT_NAME})
endif()
set(VEYRA_LOG_FILE ${VEYRA_LOG_DIRECTORY}/${PROJECT_NAME}.log)

# systemd itself creates log directories only below /var/log. systemd-tmpfiles creates any other
# directory. The service sees the file system read-only, so the unit must permit writing there.
cmake_path(RELATIVE_PATH VEYRA_LOG_DIRECTORY BASE_DIRECTORY /var/log OUTPUT_VARIABLE logsDirectory)
if(logsDirectory MATCHES "^\\.\\.")
  set(VEYRA_UNIT_LOG_SETTINGS "ReadWritePaths=${VEYRA_LOG_DIRECTORY}")
else()
  set(VEYRA_UNIT_LOG_SETTINGS "LogsDirectory=${logsDirectory}\nLogsDirectoryMode=0750")
endif()

# The platform library is in a private directory, so that the gateway's own library can replace it
# without an effect on other programs.
set(privateLibraries ${CMAKE_INSTALL_LIBDIR}/${PROJECT_NAME})
set(VEYRA_PRIVATE_LIBRARIES ${CMAKE_INSTALL_FULL_LIBDIR}/${PROJECT_NAME})
cmake_path(RELATIVE_PATH VEYRA_PRIVATE_LIBRARIES BASE_DIRECTORY ${CMAKE_INSTALL_FULL_SBINDIR}
  OUTPUT_VARIABLE librariesFromPrograms)
set(VEYRA_RPATH "$ORIGIN/${librariesFromPrograms}")

# systemd searches for units below /usr and /usr/local, and always in /etc.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr(/local)?/?$")
  set(systemdDirectory lib)
else()
  set(systemdDirectory /etc)
endif()
set(VEYRA_SYSTEMD_DIRECTORY ${systemdDirectory} CACHE PATH
  "Parent of systemd/system, sysusers.d and tmpfiles.d")
