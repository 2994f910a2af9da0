# X11 through XCB: displays and applications, snapshot, cropped video stream and recorder.
