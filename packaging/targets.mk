# Targets for gateways: cross builds and their tests, packages and their tests.

ARCH ?= arm64

.PHONY: cross test-cross package test-package test-integration

# The libraries of the target are downloaded into the build directory.
cross:
	@$(DEPENDENCIES) build cross $(ARCH)
	@packaging/make-sysroot.sh $(ARCH) build-$(ARCH)/sysroot
	ARCH=$(ARCH) cmake --preset cross
	ARCH=$(ARCH) cmake --build --preset cross --target lora-veyra-server lora-veyra-doctor -j $(JOBS)
	@packaging/show-sizes.sh build-$(ARCH)

test-cross:
	@$(DEPENDENCIES) build test cross $(ARCH)
	@packaging/test-cross.sh $(ARCH) $(JOBS)

package:
	@$(DEPENDENCIES) build test cross package
	@packaging/make-packages.sh $(JOBS)

test-package: package
	@packaging/test-reproducible.sh
	@packaging/test-packages.sh

test-integration:
	@$(DEPENDENCIES) cross
	@packaging/integration/run.sh
