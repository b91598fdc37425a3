# libmnl, the netlink library: target LibMnl::LibMnl.
find_path(LibMnl_INCLUDE_DIR libmnl/libmnl.h)
find_library(LibMnl_LIBRARY mnl)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibMnl REQUIRED_VARS LibMnl_LIBRARY LibMnl_INCLUDE_DIR)

if(LibMnl_FOUND AND NOT TARGET LibMnl::LibMnl)
  add_library(LibMnl::LibMnl UNKNOWN IMPORTED)
  set_target_properties(LibMnl::LibMnl PROPERTIES
    IMPORTED_LOCATION "${LibMnl_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${LibMnl_INCLUDE_DIR}")
endif()
