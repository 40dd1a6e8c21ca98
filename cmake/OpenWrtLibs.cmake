# Find the real OpenWrt libraries (staging dir of an SDK, or an install prefix
# given through CMAKE_PREFIX_PATH) and expose them under the same target names
# as the stand-ins. None of them installs pkg-config files.
function(lr_import_openwrt target header library)
  string(MAKE_C_IDENTIFIER "${target}" _id)
  find_path(${_id}_INCLUDE_DIR ${header} REQUIRED)
  find_library(${_id}_LIBRARY ${library} REQUIRED)
  add_library(${target} UNKNOWN IMPORTED GLOBAL)
  # Imported include directories are SYSTEM for consumers, so the real
  # headers' own warnings do not fail our -Werror build.
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${${_id}_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${${_id}_INCLUDE_DIR}")
endfunction()

lr_import_openwrt(lr::ubox libubox/uloop.h ubox)
lr_import_openwrt(lr::blobmsg_json libubox/blobmsg_json.h blobmsg_json)
lr_import_openwrt(lr::ubus libubus.h ubus)
lr_import_openwrt(lr::uci uci.h uci)
set_property(TARGET lr::blobmsg_json APPEND PROPERTY INTERFACE_LINK_LIBRARIES lr::ubox)
set_property(TARGET lr::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES lr::ubox)
set_property(TARGET lr::uci APPEND PROPERTY INTERFACE_LINK_LIBRARIES lr::ubox)

lr_import_openwrt(lr::iwinfo iwinfo.h iwinfo)
set_property(TARGET lr::iwinfo APPEND PROPERTY INTERFACE_LINK_LIBRARIES lr::uci lr::ubus)
# libmac-oui is the vendor's, not OpenWrt's: a staging dir built from
# OpenWrt's sources alone lacks it, and then our stand-in is built.
find_path(MAC_OUI_INCLUDE_DIR mac_oui.h)
find_library(MAC_OUI_LIBRARY mac-oui)
if(MAC_OUI_INCLUDE_DIR AND MAC_OUI_LIBRARY)
  lr_import_openwrt(lr::mac_oui mac_oui.h mac-oui)
else()
  message(STATUS "libmac-oui: not in the staging dir, building the stand-in from platform/libmac-oui")
  add_subdirectory(${PROJECT_SOURCE_DIR}/platform/libmac-oui ${PROJECT_BINARY_DIR}/platform/libmac-oui)
endif()

# The bus daemon and tools that tests and benchmarks start: the staging
# dir's or the ones on PATH (a bare name then, found by exec at run time).
foreach(_tool ubusd ubus uci)
  string(TOUPPER ${_tool} _id)
  find_program(LANROSTER_${_id} ${_tool} PATH_SUFFIXES sbin bin)
  if(LANROSTER_${_id})
    set(LR_${_id}_BIN ${LANROSTER_${_id}})
  else()
    set(LR_${_id}_BIN ${_tool})
  endif()
endforeach()
