# The doctor, shown on a gateway of its own.

.PHONY: doctor

doctor: build
	@testbed/run.sh /usr/bin/python3 -m demo.doctor
