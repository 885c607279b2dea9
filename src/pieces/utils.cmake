# Small observable objects shared by the engine and the user interface, and the leak tracker.
terncl_add_sources(
  HEADERS
    terncl/core/qtstringlist.h
    terncl/core/qttoggleswitchobject.h
    terncl/core/qtqobjectstracker.h
  SOURCES
    terncl/core/qtstringlist.cpp
    terncl/core/qttoggleswitchobject.cpp
    terncl/core/qtqobjectstracker.cpp)
