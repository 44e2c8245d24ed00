# Finds the four OpenCV modules the frame exporter uses from Debian's per-module development
# packages, which ship headers and libraries but no CMake config (that comes only with the
# full libopencv-dev). Defines the imported target OpenCV::modules.
find_path(OpenCVModules_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
set(_evcam_cv_libs)
foreach(_m core imgproc imgcodecs videoio)
    find_library(OpenCVModules_${_m}_LIBRARY opencv_${_m})
    list(APPEND _evcam_cv_libs OpenCVModules_${_m}_LIBRARY)
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVModules REQUIRED_VARS OpenCVModules_INCLUDE_DIR ${_evcam_cv_libs})

if(OpenCVModules_FOUND AND NOT TARGET OpenCV::modules)
    add_library(OpenCV::modules INTERFACE IMPORTED)
    set_target_properties(OpenCV::modules PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVModules_INCLUDE_DIR}")
    foreach(_m core imgproc imgcodecs videoio)
        set_property(TARGET OpenCV::modules APPEND PROPERTY
            INTERFACE_LINK_LIBRARIES "${OpenCVModules_${_m}_LIBRARY}")
    endforeach()
endif()
