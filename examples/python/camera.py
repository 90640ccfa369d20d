# Watches a camera, and records it in files of ten minutes until the window is closed: camera.py URL FILE.mp4
import sys
import tkinter

from kelp_player import Player, Recorder


class Files(Recorder):
    def on_file_ended(self, path: str, duration_ms: int) -> None:
        print(f"{path}: {duration_ms / 1000:.1f} s")

    def on_failed(self, path: str, reason: str) -> None:
        print(f"{path}: {reason}")


def look() -> None:
    statistics = player.statistics
    window.title(f"{statistics.video.shown} pictures, lost {statistics.restarts} times")
    window.after(200, look) if player.ended is None else window.quit()


window = tkinter.Tk()
window.geometry("640x360")
window.protocol("WM_DELETE_WINDOW", window.quit)  # it stays until the player has gone
window.update()  # and is there by now
# [camera]
with Files() as recorder, Player(preset="recommended", log_level="error") as player:
    player.set_option("timeout", 5000000)  # microseconds that the camera may be silent
    player.set_option("retry_when_failed", 1000)  # milliseconds until it is tried again
    player.add_window(window.winfo_id(), 640, 360)
    player.set_recorder(recorder)
    recorder.start(sys.argv[2], file_ms=600000)
    player.open(sys.argv[1])
    player.play()
    look()
    window.mainloop()
    recorder.stop()
# [/camera]
