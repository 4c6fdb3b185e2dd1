# The target qamcard::qamcard. The library needs nothing of C++ at run time, so programs in C link it without a C++
# compiler.
include(${CMAKE_CURRENT_LIST_DIR}/qamcardTargets.cmake)
get_target_property(qamcard_configurations qamcard::qamcard IMPORTED_CONFIGURATIONS)
foreach(configuration IN LISTS qamcard_configurations)
  set_target_properties(qamcard::qamcard PROPERTIES IMPORTED_LINK_INTERFACE_LANGUAGES_${configuration} C)
endforeach()
unset(qamcard_configurations)
