halvex_test(HalvexFileTests MAIN TestMain LABEL unit SOURCES
  Downloader/PathClaimTest.cpp
  Downloader/RateLimiterTest.cpp
  Downloader/ResourceDownloaderFileMockTest.cpp
  FileUtilsTest.cpp
  NetworkStateCheckerStubTest.cpp
  NetworkStateEmulatorTest.cpp)
target_link_libraries(HalvexFileTests PRIVATE HalvexTestSystemCalls)
