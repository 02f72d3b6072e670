# Installs the libraries, their public headers and the package that find_package looks for.

include(CMakePackageConfigHelpers)

# The public headers; all others are internal and may change.
set(HALVEX_PUBLIC_HEADERS
  Foundation/DataInputFile.h
  Foundation/DataOutputFile.h
  Foundation/Exception.h
  Foundation/Export.h
  Foundation/HttpClientFactory.h
  Foundation/IDataInput.h
  Foundation/IDataOutput.h
  Foundation/IRefCountable.h
  Foundation/Mutex.h
  Foundation/ThreadAnnotations.h
  Foundation/Url.h
  Foundation/ioPath.h
  Networking/IHttpClient.h
  Networking/QtHttpClient.h
  ResourceDownloadManager/BlockingExecutor.h
  ResourceDownloadManager/DownloadRetrier.h
  ResourceDownloadManager/DownloadRetrierStub.h
  ResourceDownloadManager/Downloader/IResourceDownloader.h
  ResourceDownloadManager/Downloader/ResourceDownloaderFileMock.h
  ResourceDownloadManager/Downloader/ResourceDownloaderHttp.h
  ResourceDownloadManager/EventTracer.h
  ResourceDownloadManager/EventTracerStub.h
  ResourceDownloadManager/FileUtils.h
  ResourceDownloadManager/IDownloadRetrier.h
  ResourceDownloadManager/IEventTracer.h
  ResourceDownloadManager/IExecutor.h
  ResourceDownloadManager/INetworkStateChecker.h
  ResourceDownloadManager/IPostProcessor.h
  ResourceDownloadManager/IProxyProvider.h
  ResourceDownloadManager/IRemoteResource.h
  ResourceDownloadManager/IRemoteResourceEventHandler.h
  ResourceDownloadManager/IRemoteResourceScheduler.h
  ResourceDownloadManager/ISchedulableResource.h
  ResourceDownloadManager/ITaskQueue.h
  ResourceDownloadManager/ITaskQueueEventHandler.h
  ResourceDownloadManager/IValidator.h
  ResourceDownloadManager/NetworkStateCheckerStub.h
  ResourceDownloadManager/NetworkStateEmulator.h
  ResourceDownloadManager/ParallelExecutor.h
  ResourceDownloadManager/PostProcessorStub.h
  ResourceDownloadManager/QtProxyProvider.h
  ResourceDownloadManager/RemoteResourceEventHandlerCallback.h
  ResourceDownloadManager/RemoteResourceScheduler.h
  ResourceDownloadManager/ResourceDescriptor.h
  ResourceDownloadManager/ResourceDownloadManager.h
  ResourceDownloadManager/TaskQueue.h
  ResourceDownloadManager/TaskQueueImmediate.h
  ResourceDownloadManager/TaskQueueQt.h
  ResourceDownloadManager/ValidatorStub.h
  ResourceKit/EventTracerChrome.h
  ResourceKit/ExpectedFileLookup.h
  ResourceKit/FileCheck.h
  ResourceKit/Manifest.h
  ResourceKit/PostProcessorInstall.h
  ResourceKit/PostProcessorUnpack.h
  ResourceKit/ResourceDownloaderMirrors.h
  ResourceKit/ResourceListModel.h
  ResourceKit/ResourceWatch.h
  ResourceKit/SpeedMeter.h
  ResourceKit/Testing/Event.h
  ResourceKit/Testing/ManualTaskQueue.h
  ResourceKit/Testing/RecordingEventHandler.h
  ResourceKit/Testing/Reply.h
  ResourceKit/Testing/ScriptedDownload.h
  ResourceKit/Testing/ScriptedDownloader.h
  ResourceKit/Testing/ScriptedHttpServer.h
  ResourceKit/Testing/ServerCertificate.h
  ResourceKit/ValidatorSha256.h)

set(HALVEX_INCLUDE_DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/Halvex")
foreach(header IN LISTS HALVEX_PUBLIC_HEADERS)
  get_filename_component(folder "${header}" DIRECTORY)
  install(FILES "${PROJECT_SOURCE_DIR}/${header}"
    DESTINATION "${HALVEX_INCLUDE_DESTINATION}/${folder}")
endforeach()
install(FILES "${HALVEX_GENERATED_DIR}/Foundation/Version.h"
  DESTINATION "${HALVEX_INCLUDE_DESTINATION}/Foundation")

install(TARGETS HalvexResourceDownloadManager EXPORT HalvexTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")

set(HALVEX_PACKAGE_DESTINATION
  "${CMAKE_INSTALL_LIBDIR}/cmake/HalvexResourceDownloadManager")
install(EXPORT HalvexTargets
  FILE HalvexResourceDownloadManagerTargets.cmake
  NAMESPACE Halvex::
  DESTINATION "${HALVEX_PACKAGE_DESTINATION}")

# The kit needs more of those who use it, so its targets are a set of their own. Its libraries look
# for the manager's beside them, wherever that is.
set_target_properties(HalvexResourceKit HalvexResourceKitTesting PROPERTIES
  INSTALL_RPATH "$ORIGIN")
install(TARGETS HalvexResourceKit HalvexResourceKitTesting EXPORT HalvexKitTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT HalvexKitTargets
  FILE HalvexResourceKitTargets.cmake
  NAMESPACE Halvex::
  DESTINATION "${HALVEX_PACKAGE_DESTINATION}")

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/HalvexResourceDownloadManagerConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/HalvexResourceDownloadManagerConfig.cmake"
  INSTALL_DESTINATION "${HALVEX_PACKAGE_DESTINATION}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/HalvexResourceDownloadManagerConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/HalvexResourceDownloadManagerConfig.cmake"
  "${PROJECT_BINARY_DIR}/HalvexResourceDownloadManagerConfigVersion.cmake"
  DESTINATION "${HALVEX_PACKAGE_DESTINATION}")
