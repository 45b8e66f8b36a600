# Host names of the services, one header generated from cache variables so that a deployment sets its own.
set(VELMORA_INGEST_PROD_HOST "ingest.velmora.orvane.example" CACHE STRING "Host of the ingest service, production")
set(VELMORA_INGEST_STAGE_HOST "ingest-stage.velmora.orvane.example" CACHE STRING "Host of the ingest service, staging")
set(VELMORA_IDENTITY_PROD_HOST "identity.velmora.orvane.example" CACHE STRING "Host of the identity service, production")
set(VELMORA_IDENTITY_STAGE_HOST "identity-stage.velmora.orvane.example" CACHE STRING "Host of the identity service, staging")
set(VELMORA_PERMISSION_PROD_HOST "permission.velmora.orvane.example" CACHE STRING "Host of the tracking service, production")
set(VELMORA_PERMISSION_STAGE_HOST "permission-stage.velmora.orvane.example" CACHE STRING "Host of the tracking service, staging")
configure_file(${CMAKE_CURRENT_LIST_DIR}/deployment.h.in ${PROJECT_BINARY_DIR}/generated/deployment.h @ONLY)
target_include_directories(velmora_options INTERFACE ${PROJECT_BINARY_DIR}/generated)
