# The doctor, shown on a gateway of its own.

.PHONY: doctor

doctor: build
	@rig/run.sh /usr/bin/python3 -m demo.doctor
