# Several sources in one compilation: what all of them include, and instantiate, is compiled once.

# lb_bundle(LIBRARY): LB_BUNDLE sources of the library at once. All are in one namespace then: a name in an unnamed
# namespace meets those of its neighbours, and two classes of one name, which a linker would not see, are an error.
function(lb_bundle library)
  if(LB_BUNDLE)
    set_target_properties(${library} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${LB_BUNDLE})
  endif()
endfunction()

# For tests, which stand in no namespace of the project's and have many names in common:
# lb_bundle_sources(VARIABLE NAME SIZE source...): replaces absolute paths of sources by generated ones, which hold SIZE
# of them each. A source is in a namespace of its own, so that names of one cannot meet those of another; for that, all
# headers come first. They need guards, and are to be included by lines that begin with #include. Some sources stand in
# the namespace lbctl, of what they test: they find its names there as well.
function(lb_bundle_sources variable name size)
  set(bundles)
  list(LENGTH ARGN left)
  set(at 0)
  while(left GREATER at)
    list(SUBLIST ARGN ${at} ${size} members)
    set(headers)
    set(bodies)
    foreach(source IN LISTS members)
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
      file(STRINGS ${source} lines REGEX "^#include ")
      list(APPEND headers ${lines})
      file(RELATIVE_PATH place ${CMAKE_CURRENT_SOURCE_DIR} ${source})
      string(MAKE_C_IDENTIFIER ${place} namespace)
      file(STRINGS ${source} outer REGEX "^namespace lbctl {")
      string(REPLACE "{" "{ using namespace ::lbctl; }\n" outer "${outer}")
      string(APPEND bodies "namespace in_${namespace} {\n${outer}#include \"${source}\"\n}\n")
    endforeach()
    list(REMOVE_DUPLICATES headers)
    list(JOIN headers "\n" headers)
    # g++ takes it that other compilations see an included file's classes too.
    set(warning "#if !defined(__clang__)\n#pragma GCC diagnostic ignored \"-Wsubobject-linkage\"\n#endif")
    set(bundle ${CMAKE_CURRENT_BINARY_DIR}/${name}_${at}.cpp)
    file(CONFIGURE OUTPUT ${bundle} @ONLY CONTENT "${headers}\n${warning}\n${bodies}")
    list(APPEND bundles ${bundle})
    math(EXPR at "${at} + ${size}")
  endwhile()
  set(${variable} ${bundles} PARENT_SCOPE)
endfunction()
