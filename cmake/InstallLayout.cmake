# Where an installed system has its files. GNUInstallDirs knows the general directories; these follow
# from them. The unit, the init script, the manual pages and the doctor's defaults take them from here.

include(GNUInstallDirs)

set(VEYRA_CONFIGURATION_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/${PROJECT_NAME}.conf)

# Logs are below /var whatever the prefix is, unless another directory is named.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LOCALSTATEDIR}")
  set(VEYRA_LOG_DIRECTORY ${CMAKE_INSTALL_LOCALSTATEDIR}/log/${PROJECT_NAME})
else()
  set(VEYRA_LOG_DIRECTORY /var/log/${PROJECT_NAME})
endif()
set(VEYRA_LOG_FILE ${VEYRA_LOG_DIRECTORY}/${PROJECT_NAME}.log)

# systemd itself makes a log directory below /var/log only. Any other is made by systemd-tmpfiles, and
# the service, which sees the file system read-only, needs to be let in.
cmake_path(RELATIVE_PATH VEYRA_LOG_DIRECTORY BASE_DIRECTORY /var/log OUTPUT_VARIABLE logsDirectory)
if(logsDirectory MATCHES "^\\.\\.")
  set(VEYRA_UNIT_LOG_SETTINGS "ReadWritePaths=${VEYRA_LOG_DIRECTORY}")
else()
  set(VEYRA_UNIT_LOG_SETTINGS "LogsDirectory=${logsDirectory}\nLogsDirectoryMode=0750")
endif()

# A directory of the program's own, so that a gateway's platform library can take the place of the one
# there and no other program meets it.
set(privateLibraries ${CMAKE_INSTALL_LIBDIR}/${PROJECT_NAME})
set(VEYRA_PRIVATE_LIBRARIES ${CMAKE_INSTALL_FULL_LIBDIR}/${PROJECT_NAME})
cmake_path(RELATIVE_PATH VEYRA_PRIVATE_LIBRARIES BASE_DIRECTORY ${CMAKE_INSTALL_FULL_SBINDIR}
  OUTPUT_VARIABLE librariesFromPrograms)
set(VEYRA_RPATH "$ORIGIN/${librariesFromPrograms}")

# systemd looks below /usr and /usr/local, and always in /etc.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr(/local)?/?$")
  set(systemdDirectory lib)
else()
  set(systemdDirectory /etc)
endif()
set(VEYRA_SYSTEMD_DIRECTORY ${systemdDirectory} CACHE PATH
  "Parent of systemd/system, sysusers.d and tmpfiles.d")
