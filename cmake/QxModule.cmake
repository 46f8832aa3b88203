# qx_add_module(NAME [DEPENDS MODULE...])
#
# The object library NAME_obj from NAME/*.cpp and NAME/src/*.cpp, and the global property QX_PUBLIC_HEADERS_NAME with
# the module's public headers (those at the top of its folder). Whoever links NAME_obj must also link the object
# libraries of the modules it depends on: CMake hands on their flags and include paths, not their object files. A module
# without sources is an interface library of the same name.
function(qx_add_module name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS")
    file(GLOB headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${name}/*.h")
    file(GLOB private_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${name}/src/*.h")
    file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${name}/*.cpp" "${PROJECT_SOURCE_DIR}/${name}/src/*.cpp")
    set_property(GLOBAL PROPERTY QX_PUBLIC_HEADERS_${name} "${headers}")

    if(sources)
        add_library(${name}_obj OBJECT ${sources} ${headers} ${private_headers})
        target_compile_options(${name}_obj PRIVATE ${QX_PRODUCT_COMPILE_OPTIONS})
        target_link_libraries(${name}_obj PRIVATE qx_options)
        set(scope PUBLIC)
    else()
        add_library(${name}_obj INTERFACE)
        set(scope INTERFACE)
    endif()
    target_include_directories(${name}_obj ${scope} "${PROJECT_SOURCE_DIR}")
    target_link_libraries(${name}_obj ${scope} Threads::Threads)
    foreach(dependency IN LISTS arg_DEPENDS)
        target_link_libraries(${name}_obj ${scope} ${dependency}_obj)
    endforeach()
endfunction()

# qx_add_shared_library(NAME MODULES MODULE...)
#
# libNAME.so from the modules' objects, also known as NAME::NAME inside this build, as users of the package know it.
function(qx_add_shared_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "MODULES")
    add_library(${name} SHARED)
    add_library(${name}::${name} ALIAS ${name})
    foreach(module IN LISTS arg_MODULES)
        get_target_property(type ${module}_obj TYPE)
        if(type STREQUAL "OBJECT_LIBRARY")
            target_sources(${name} PRIVATE $<TARGET_OBJECTS:${module}_obj>)
        endif()
        get_property(headers GLOBAL PROPERTY QX_PUBLIC_HEADERS_${module})
        list(APPEND all_headers ${headers})
    endforeach()
    target_sources(${name} PUBLIC
        FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${all_headers})
    target_compile_features(${name} PUBLIC cxx_std_20)
    target_link_libraries(${name} PUBLIC Threads::Threads PRIVATE $<BUILD_INTERFACE:qx_options>)
    if(NOT QX_SANITIZE_FLAGS)
        # A symbol that no object defines is found here, not by the first program that starts. The sanitizers'
        # runtime is in the program, so their builds can't check it.
        target_link_options(${name} PRIVATE LINKER:-z,defs)
        # Calls between its sources go straight to the function. Data keeps one address in the process: tables, by which
        # classes and interfaces are told apart, are data.
        target_link_options(${name} PRIVATE LINKER:-Bsymbolic-functions)
    endif()
    # Before version 1 a minor version may change the binary interface.
    set_target_properties(${name} PROPERTIES
        LINKER_LANGUAGE CXX
        VERIFY_INTERFACE_HEADER_SETS ON     # the target all_verify_interface_header_sets compiles each header alone
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
endfunction()
