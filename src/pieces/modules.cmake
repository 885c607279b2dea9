# Modules: initialization in order and de-initialization in reverse, download modules and the
# keeper that holds them by uid.
terncl_add_sources(
  HEADERS
    terncl/core/qtabstractmodule.h
    terncl/core/qtabstractcomplexmodule.h
    terncl/core/thirdpartylibinfo.h
    terncl/core/abstractdownloadmodule.h
    terncl/core/abstractdownloadsmodulesprovider.h
    terncl/core/abstractdownloadsmoduleskeeper.h
  SOURCES
    terncl/core/qtabstractmodule.cpp
    terncl/core/qtabstractcomplexmodule.cpp
    terncl/core/abstractdownloadmodule.cpp
    terncl/core/abstractdownloadsmoduleskeeper.cpp)
