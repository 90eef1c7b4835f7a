# Demonstrates the doctor in the test environment.

.PHONY: doctor

doctor: build
	@testbed/run.sh /usr/bin/python3 -m demo.doctor
