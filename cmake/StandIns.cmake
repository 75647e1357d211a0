# Puts functions of a test in the place of others: stand_in_for(target call...)
# What the target and its libraries call by these names (as the linker has them) goes to __wrap_<call>; __real_<call> is
# what was there. On a machine of 32 bits the C library has the calls that tell of times under second names, for 64-bit
# times: a stand-in for one that is not in this list would not be called there.
set(STAND_IN_TIME64_NAMES
  time:__time64 gettimeofday:__gettimeofday64 clock_gettime:__clock_gettime64 nanosleep:__nanosleep64
  localtime_r:__localtime64_r ctime_r:__ctime64_r select:__select64 stat:__stat64_time64
  setsockopt:__setsockopt64 getsockopt:__getsockopt64 ioctl:__ioctl_time64 fcntl:__fcntl_time64)

function(stand_in_for target)
  foreach(call IN LISTS ARGN)
    set(symbol ${call})
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
      foreach(name IN LISTS STAND_IN_TIME64_NAMES)
        if(name MATCHES "^${call}:(.*)$")
          set(symbol ${CMAKE_MATCH_1})
          target_compile_definitions(${target} PRIVATE
            __wrap_${call}=__wrap_${symbol} __real_${call}=__real_${symbol})
        endif()
      endforeach()
    endif()
    target_link_options(${target} PRIVATE -Wl,--wrap=${symbol})
  endforeach()
endfunction()
