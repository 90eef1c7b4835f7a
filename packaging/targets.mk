# Targets for gateways: cross builds and their tests, packages and their tests.

CROSS := armhf armel

.PHONY: $(CROSS) test-armhf package test-package

# The libraries of the target are downloaded into the build folder.
$(CROSS):
	@$(DEPENDENCIES) build cross
	@packaging/make-sysroot.sh $@ build-$@/sysroot
	cmake --preset $@
	cmake --build --preset $@ --target lora-veyra-server lora-veyra-doctor -j $(JOBS)
	@packaging/show-sizes.sh build-$@

test-armhf:
	@$(DEPENDENCIES) build test cross
	@packaging/test-armhf.sh $(JOBS)

package:
	@$(DEPENDENCIES) build test cross package
	@packaging/make-packages.sh $(JOBS)

test-package: package
	@packaging/test-packages.sh
