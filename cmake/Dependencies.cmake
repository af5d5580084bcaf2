# Every third-party library comes from the distribution's packages
# (scripts/install-deps.sh installs them).
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(CURL REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(libjpeg-turbo CONFIG REQUIRED)
find_package(fmt REQUIRED)
find_package(CLI11 CONFIG REQUIRED)
find_package(nlohmann_json REQUIRED)
# CD drives and disc images.
pkg_check_modules(CDIO REQUIRED IMPORTED_TARGET GLOBAL libcdio)
