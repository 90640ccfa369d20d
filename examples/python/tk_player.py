# A small desktop player with Tk: tk_player.py FILE
import sys
import tkinter

from kelp_player import Event, Failed, Player, Prepared, SyncMaster


class Window(tkinter.Tk):
    def __init__(self, source: str) -> None:
        super().__init__()
        self.title(source)
        # [window]
        self.area = tkinter.Frame(self, width=960, height=540, background="")  # Tk is not to paint on it
        self.area.pack(fill="both", expand=True)
        self.slider = tkinter.Scale(self, orient="horizontal", showvalue=False)
        self.slider.pack(fill="x")
        self.update()  # the area is there by now
        self.player = Player(preset="recommended", log_level="error")
        self.player.set_sync_master(SyncMaster.AUDIO)
        self.area.bind("<Configure>", lambda event: self.show(event.width, event.height))
        self.show(960, 540)
        # [/window]
        self.prepared = self.paused = self.dragged = False
        self.slider.bind("<ButtonPress-1>", lambda event: self.drag(True))
        self.slider.bind("<ButtonRelease-1>", lambda event: self.drag(False))
        self.bind("<space>", lambda event: self.pause())
        self.bind("<q>", lambda event: self.quit())
        self.protocol("WM_DELETE_WINDOW", self.quit)  # the area stays until the player has gone
        self.events = self.player.events()
        self.player.open(source)
        self.player.play()
        self.look()

    def show(self, width: int, height: int) -> None:
        self.player.add_window(self.area.winfo_id(), width, height)

    def pause(self) -> None:
        self.paused = not self.paused
        (self.player.pause if self.paused else self.player.resume)()

    def drag(self, dragged: bool) -> None:
        self.dragged = dragged
        if self.prepared and not dragged:
            self.player.seek(int(self.slider.get()))

    # [look]
    def look(self) -> None:
        for event in self.events.poll():  # here, in Tk's own thread
            self.hear(event)
        if self.prepared and not self.dragged:
            self.slider.set(self.player.position_ms)
        self.after(40, self.look)

    def hear(self, event: Event) -> None:
        if isinstance(event, Prepared):
            self.prepared = True
            self.slider.configure(to=self.player.duration_ms)
        elif isinstance(event, Failed):
            self.prepared = False
            self.title(event.reason)

    # [/look]


window = Window(sys.argv[1])
window.mainloop()
window.player.close()
