# Copies the example host's package next to the module, without any module or stub a build left in
# the source tree (another interpreter's or configuration's) and without bytecode caches.
file(COPY ${SOURCE} DESTINATION ${DESTINATION}
     PATTERN "*.so" EXCLUDE
     PATTERN "registry_docs.pyi" EXCLUDE
     PATTERN "__pycache__" EXCLUDE)
