# The targets qamcard::qamcard and qamcard::conformance. The libraries need nothing of C++ at run time, so programs in C
# link them without a C++ compiler.
include(${CMAKE_CURRENT_LIST_DIR}/qamcardTargets.cmake)
foreach(library IN ITEMS qamcard::qamcard qamcard::conformance)
  get_target_property(qamcard_configurations ${library} IMPORTED_CONFIGURATIONS)
  foreach(configuration IN LISTS qamcard_configurations)
    set_target_properties(${library} PROPERTIES IMPORTED_LINK_INTERFACE_LANGUAGES_${configuration} C)
  endforeach()
endforeach()
unset(qamcard_configurations)
