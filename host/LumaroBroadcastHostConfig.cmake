# find_package(LumaroBroadcastHost): the target LumaroBroadcastHost::lumaro_broadcast_host.
include(${CMAKE_CURRENT_LIST_DIR}/LumaroBroadcastHostTargets.cmake)
