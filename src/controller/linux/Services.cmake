# Desktop services of the controller on Qt and D-Bus.
