#!/bin/sh
# check_includes.sh FOLDER...
# Fails when a source under the folders includes a path that climbs out of
# its folder ("../"): such an include reaches past the include folders a
# component is given, so the build would not see the dependency.
if grep -rnE --include='*.cpp' --include='*.h' '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[^"]*[.][.]/' "$@"; then
  echo "check_includes: the include above climbs out of its folder; link the component and include the header by name" >&2
  exit 1
fi
