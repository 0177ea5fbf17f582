# The build's packages from Debian; platform/linux finds its own. scripts/setup installs the packages,
# scripts/packages.txt gives the purpose of each.
find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
if(POS_BUILD_TESTS)
  find_package(GTest REQUIRED)
  find_program(SYSTEM_PYTHON3 python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()
if(POS_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
