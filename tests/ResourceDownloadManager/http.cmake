halvex_test(HalvexHttpTests MAIN QtTestMain LABEL unit SOURCES
  Downloader/ResourceDownloaderHttpTest.cpp
  QtProxyProviderTest.cpp)
