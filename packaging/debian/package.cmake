# The Debian package, which scripts/package makes.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/volorn)
volorn_gzipped(${CMAKE_CURRENT_LIST_DIR}/changelog changelog ${CMAKE_INSTALL_DATADIR}/doc/volorn)

file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^volorn \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog begins with another version than ${PROJECT_VERSION}: ${newest}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME volorn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "volorn maintainers <maintainers@volorn.example>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
if(VOLORN_CROSS)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VOLORN_CROSS})
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${VOLORN_CROSS_LIBRARIES})
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "daily snapshot of the device, and a sampler of its processes
Once a day, at a planned second, a small daemon takes one snapshot of the
device: battery charge and capacity, plug and charge states, backlight,
thermal level, uptime, load and available memory. It plans the next and
exits; a timer of systemd, or a launcher of its own, starts it again.
.
volornctl shows what was kept, and what the machine does now: a summary at
one moment, its processes over time, and the memory of each.")
# libsystemd is loaded by name, so that no linker tells of it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "default-dbus-system-bus | dbus-system-bus, libsystemd0 (>= 249), systemd (>= 249) | systemd-sysusers")
if(VOLORN_PUSH)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS curl)
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm ${CMAKE_CURRENT_LIST_DIR}/postrm
  ${CMAKE_CURRENT_LIST_DIR}/triggers)
# The units' folder is an absolute one.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
